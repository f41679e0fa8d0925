#!/usr/bin/env bash
# Installs a build below a fresh prefix and links hosts against it as the README says: with pkg-config
# and with find_package, in C and in C++, under strict warnings.
# usage: installed.sh BUILD_DIR
set -eu
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

fail() {
    printf '%s\n' "$*"
    exit 1
}

# Runs a command; only if it fails is its output shown.
quietly() { "$@" >"$prefix/log" 2>&1 || { cat "$prefix/log"; fail "failed: $*"; }; }

quietly cmake --install "$build" --prefix "$prefix"
library=$(dirname "$(find "$prefix" -name libkeel.so)")
dynamic=$(readelf -d "$library/libkeel.so")
[[ $dynamic == *SONAME*'[libkeel.so.1]'* ]] || fail "wrong SONAME: $dynamic"
[[ $dynamic != *RPATH* && $dynamic != *RUNPATH* ]] || fail "the library has a run path: $dynamic"

cd "$prefix"
# The conversion is one that keel's own build would refuse: what keel warns itself about is not the
# business of its hosts.
cat >host.c <<'HOST'
#include <stdio.h>
#include <xfsproc.h>
#include <xlog.h>
int main(void) {
    get_system_stat();
    int seconds = ss.uptime;
    return log_print(0, 0x40, "up %d seconds", seconds) == -1;
}
HOST
cp host.c host.cpp
strict=(-Wall -Wextra -Wpedantic -Wshadow -Wundef -Wformat=2 -Werror)

export PKG_CONFIG_PATH=$library/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs keel)"
for compiler in "gcc -std=c11" "clang -std=c11" "g++ -std=c++17" "clang++ -std=c++17"; do
    host=host.c
    [[ $compiler != *++* ]] || host=host.cpp
    quietly $compiler "${strict[@]}" $host "${flags[@]}" -o with_pkg_config
    LD_LIBRARY_PATH=$library quietly ./with_pkg_config
done

cat >CMakeLists.txt <<HOST
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C CXX)
add_compile_options(${strict[*]})
find_package(keel REQUIRED)
foreach(library keel static)
    foreach(language c cpp)
        add_executable(with_\${library}_\${language} host.\${language})
        target_link_libraries(with_\${library}_\${language} PRIVATE keel::\${library})
    endforeach()
endforeach()
HOST
quietly cmake -G Ninja -S . -B hosts -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build hosts
for host in with_keel_c with_keel_cpp with_static_c with_static_cpp; do
    quietly hosts/$host
done
