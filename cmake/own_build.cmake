# What holds for our own targets only and never reaches whoever links keel.
add_library(keel_own_build INTERFACE)
target_compile_options(keel_own_build INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
    $<$<BOOL:${KEEL_TESTS}>:-Werror> # where keel is worked on; a newer compiler may warn of more
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual -Wnon-virtual-dtor>)
if(KEEL_SANITIZE)
    # Without vptr, which needs spare descriptors to look at an object; tests take them away.
    set(sanitize -fsanitize=${KEEL_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_compile_options(keel_own_build INTERFACE ${sanitize})
    target_link_options(keel_own_build INTERFACE ${sanitize})
endif()

# For the library alone. Sanitizers have checks of their own, which fortified calls would hide from.
add_library(keel_hardening INTERFACE)
if(NOT KEEL_SANITIZE)
    include(CheckCXXCompilerFlag)
    foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER keel_has${flag} has_flag)
        check_cxx_compiler_flag(${flag} ${has_flag}) # not every processor has each
        if(${has_flag})
            target_compile_options(keel_hardening INTERFACE ${flag})
        endif()
    endforeach()
    if(NOT CMAKE_CXX_FLAGS MATCHES _FORTIFY_SOURCE) # it needs optimisation
        target_compile_options(keel_hardening INTERFACE
            $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    endif()
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
