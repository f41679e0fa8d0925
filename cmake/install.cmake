# Packages take it apart by component: runtime is the shared library alone.
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

install(FILES ${keel_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/keel)
install(TARGETS keel keel_static EXPORT keel
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(EXPORT keel FILE keel-targets.cmake NAMESPACE keel::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/keel)

configure_file(cmake/keel-config.cmake.in ${PROJECT_BINARY_DIR}/keel-config.cmake @ONLY)
write_basic_package_version_file(keel-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/keel-config.cmake ${PROJECT_BINARY_DIR}/keel-config-version.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/keel)

# It finds its prefix from where it lies: `cmake --install --prefix` may name another one.
file(RELATIVE_PATH keel_up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH keel_libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH keel_includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/keel)
file(CONFIGURE OUTPUT keel.pc @ONLY CONTENT
"prefix=\${pcfiledir}/@keel_up@
libdir=\${prefix}/@keel_libdir@
includedir=\${prefix}/@keel_includedir@

Name: keel
Description: @PROJECT_DESCRIPTION@
Version: @PROJECT_VERSION@
Cflags: -I\${includedir}
Libs: -L\${libdir} -lkeel
Libs.private: -lstdc++ -pthread
")

# PACKAGE FAMILY CLIENT: beside keel.pc, for hosts that use the family.
function(keel_client_package package family client)
    file(CONFIGURE OUTPUT ${package}.pc @ONLY CONTENT
"Name: @package@
Description: keel, and the client library that @family@ needs
Version: @PROJECT_VERSION@
Requires: keel = @PROJECT_VERSION@, @client@
")
endfunction()
keel_client_package(keel-ftp xftp.h ${KEEL_CURL_MODULE_NAME})
keel_client_package(keel-mysql xdb_mysql.h ${KEEL_MYSQL_MODULE_NAME})
foreach(package keel keel-ftp keel-mysql)
    install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
