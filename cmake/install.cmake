include(CMakePackageConfigHelpers)

install(FILES ${keel_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/keel)
install(TARGETS keel keel_static EXPORT keel)
install(EXPORT keel FILE keel-targets.cmake NAMESPACE keel::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/keel)

file(CONFIGURE OUTPUT keel-config.cmake @ONLY CONTENT
"include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(\${CMAKE_CURRENT_LIST_DIR}/keel-targets.cmake)
")
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
install(FILES ${PROJECT_BINARY_DIR}/keel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
