# What holds for our own targets only and never reaches whoever links keel.
add_library(keel_own_build INTERFACE)
target_compile_options(keel_own_build INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
    $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual -Wnon-virtual-dtor>)
if(KEEL_SANITIZE)
    # Without vptr, which needs spare descriptors to look at an object; tests take them away.
    set(sanitize -fsanitize=${KEEL_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_compile_options(keel_own_build INTERFACE ${sanitize})
    target_link_options(keel_own_build INTERFACE ${sanitize})
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND PROJECT_IS_TOP_LEVEL)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()
