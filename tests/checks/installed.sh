#!/usr/bin/env bash
# Installs a build below a fresh prefix and links hosts against it as the README says: with pkg-config
# and with find_package, in C and in C++, under strict warnings.
# usage: installed.sh BUILD_DIR
set -eu
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
library=$(dirname "$(find "$prefix" -name libkeel.so)")
export LD_LIBRARY_PATH=$library PKG_CONFIG_PATH=$library/pkgconfig

readelf -d "$library/libkeel.so" | grep -q 'SONAME.*\[libkeel.so.1\]' || { echo "wrong SONAME"; exit 1; }
if readelf -d "$library/libkeel.so" | grep -E 'RPATH|RUNPATH'; then
    echo "the library has a run path"
    exit 1
fi

cd "$prefix"
cat >host.c <<'HOST'
#include <stdio.h>
#include <xfsproc.h>
#include <xlog.h>
int main(void) {
    get_system_stat();
    return log_print(0, 0x40, "up %.0f seconds", ss.uptime) == -1;
}
HOST
cp host.c host.cpp
# The prefix that keel.pc names is the configured one; here it moved.
flags=$(pkg-config --define-variable=prefix="$prefix" --define-variable=libdir="$library" \
    --define-variable=includedir="$prefix/include/keel" --cflags --libs keel)
gcc -Wall -Wextra -Wpedantic -Werror host.c $flags -o with_pkg_config_c && ./with_pkg_config_c
g++ -Wall -Wextra -Wpedantic -Werror host.cpp $flags -o with_pkg_config_cpp && ./with_pkg_config_cpp

# -Wconversion findings in a host are the host's own business: keel's flags must not reach it.
cat >CMakeLists.txt <<'HOST'
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C CXX)
find_package(keel REQUIRED)
add_executable(with_cmake_c host.c)
add_executable(with_cmake_cpp host.cpp)
add_executable(with_static host.cpp)
target_link_libraries(with_cmake_c PRIVATE keel::keel)
target_link_libraries(with_cmake_cpp PRIVATE keel::keel)
target_link_libraries(with_static PRIVATE keel::static)
get_target_property(options keel::keel INTERFACE_COMPILE_OPTIONS)
if(options)
    message(FATAL_ERROR "keel's own compile options reach its hosts: ${options}")
endif()
HOST
cmake -S . -B hosts -DCMAKE_PREFIX_PATH="$prefix" >cmake.log 2>&1 || { cat cmake.log; exit 1; }
cmake --build hosts >build.log 2>&1 || { cat build.log; exit 1; }
for host in with_cmake_c with_cmake_cpp with_static; do hosts/$host; done
