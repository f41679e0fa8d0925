# libkeel.so and libkeel.a from one set of objects. The shared library shows exactly the names in
# src/exports.txt: hidden visibility alone would still leak the C++ library's templates.
list(TRANSFORM KEEL_FAMILIES PREPEND src/ OUTPUT_VARIABLE keel_sources)
list(TRANSFORM keel_sources APPEND .cpp)
list(TRANSFORM KEEL_FAMILIES PREPEND ${PROJECT_SOURCE_DIR}/include/ OUTPUT_VARIABLE keel_headers)
list(TRANSFORM keel_headers APPEND .h)
list(APPEND keel_headers ${PROJECT_SOURCE_DIR}/include/keel.h ${PROJECT_SOURCE_DIR}/include/keel.hpp)

set(keel_exports ${PROJECT_SOURCE_DIR}/src/exports.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${keel_exports})
file(STRINGS ${keel_exports} keel_names REGEX "^[A-Za-z_]")
list(JOIN keel_names ";\n        " keel_names)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/keel.map @ONLY
    CONTENT "KEEL_1 {\n    global:\n        @keel_names@;\n    local:\n        *;\n};\n")

find_package(Threads REQUIRED)

# Their headers alone: hosts that use these families link the client libraries themselves, and others
# do without.
find_package(PkgConfig REQUIRED)
pkg_check_modules(KEEL_CURL REQUIRED IMPORTED_TARGET GLOBAL libcurl)
pkg_search_module(KEEL_MYSQL REQUIRED IMPORTED_TARGET GLOBAL libmariadb mysqlclient mariadb)
set(keel_client_headers ${KEEL_CURL_INCLUDE_DIRS} ${KEEL_MYSQL_INCLUDE_DIRS})

add_library(keel_objects OBJECT ${keel_sources})
set_target_properties(keel_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_include_directories(keel_objects PUBLIC include)
target_include_directories(keel_objects SYSTEM PRIVATE ${keel_client_headers})
target_link_libraries(keel_objects PRIVATE keel_own_build keel_hardening Threads::Threads)
# The same bytes, wherever the tree and the build lie.
target_compile_options(keel_objects PRIVATE $<$<NOT:$<CONFIG:Debug>>:
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.>)

add_library(keel SHARED $<TARGET_OBJECTS:keel_objects>)
set_target_properties(keel PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${PROJECT_BINARY_DIR}/keel.map)
# Our own calls of exported functions stay ours: a host may well have a Malloc or a Close too.
target_link_options(keel PRIVATE LINKER:--version-script=${PROJECT_BINARY_DIR}/keel.map
    LINKER:-Bsymbolic-functions LINKER:-z,relro,-z,now)
if(NOT KEEL_SANITIZE) # a sanitizer's run time is found only when the program starts
    target_link_options(keel PRIVATE LINKER:-z,defs)
endif()

add_library(keel_static STATIC $<TARGET_OBJECTS:keel_objects>)
set_target_properties(keel_static PROPERTIES OUTPUT_NAME keel)

foreach(library keel keel_static)
    target_link_libraries(${library} PRIVATE $<BUILD_INTERFACE:keel_own_build> Threads::Threads)
    target_include_directories(${library} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/keel>)
endforeach()
add_library(keel::keel ALIAS keel)
add_library(keel::static ALIAS keel_static)
set_target_properties(keel_static PROPERTIES EXPORT_NAME static)

# What a host links that uses one of the two families: keel and the client library.
add_library(keel_ftp INTERFACE)
target_link_libraries(keel_ftp INTERFACE keel PkgConfig::KEEL_CURL)
add_library(keel::ftp ALIAS keel_ftp)
add_library(keel_mysql INTERFACE)
target_link_libraries(keel_mysql INTERFACE keel PkgConfig::KEEL_MYSQL)
add_library(keel::mysql ALIAS keel_mysql)
