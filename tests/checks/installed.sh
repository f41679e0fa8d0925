#!/usr/bin/env bash
# Installs a build below a fresh prefix, looks at the library as it ships, and links hosts against it as
# the README says: with pkg-config and with find_package, in C and in C++, under strict warnings, with
# the client libraries and without.
# usage: installed.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
source=$(cd "$(dirname "$0")/../.." && pwd)
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

fail() {
    printf '%s\n' "$*"
    exit 1
}

# Runs a command; only if it fails is its output shown.
quietly() { "$@" >"$prefix/log" 2>&1 || { cat "$prefix/log"; fail "failed: $*"; }; }

cd "$prefix"
quietly cmake --install "$build" --prefix "$prefix/runtime" --component runtime
files=$(find runtime -name '*.*' -printf '%f ')
[[ $files == *libkeel.so.1' '* && $files != *'.h '* && $files != *'.so '* ]] ||
    fail "the component runtime installs $files"
quietly cmake --install "$build" --prefix "$prefix"
library=$(dirname "$(find "$prefix" -path ./runtime -prune -o -name libkeel.so -print)")

dynamic=$(readelf -dW "$library/libkeel.so")
[[ $dynamic == *SONAME*'[libkeel.so.1]'* ]] || fail "wrong SONAME: $dynamic"
[[ $dynamic != *RPATH* && $dynamic != *RUNPATH* ]] || fail "the library has a run path: $dynamic"
[[ $dynamic == *BIND_NOW* ]] || fail "the library does not bind at once: $dynamic"
segments=$(readelf -lW "$library/libkeel.so")
[[ $segments == *GNU_RELRO* ]] || fail "no segment is read-only after relocation: $segments"
grep -q 'GNU_STACK.* RW ' <<<"$segments" || fail "the stack is executable: $segments"
symbols=$(nm -D "$library/libkeel.so")
[[ $symbols == *__stack_chk_fail* ]] || fail "the library has no stack protector"
if ! grep -q '^CMAKE_BUILD_TYPE:STRING=Debug' "$build/CMakeCache.txt"; then
    [[ $symbols == *__vsnprintf_chk* ]] || fail "the library's calls are not fortified"
    for built in "$library"/libkeel.{so,a}; do
        for path in "$source" "$build"; do
            ! grep -qaF "$path/" "$built" || fail "$built tells where it was built: $path"
        done
    done
fi

# Three hosts. The conversion in the first is one that keel's own build would refuse: what keel warns
# itself about is not the business of its hosts. The others are the examples in the installed headers.
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
"$source/tests/support/usage_example.sh" include/keel/xftp.h >fetch.c
"$source/tests/support/usage_example.sh" include/keel/xdb_mysql.h >query.c
for host in host fetch query; do cp "$host.c" "$host.cpp"; done
strict=(-Wall -Wextra -Wpedantic -Wshadow -Wundef -Wformat=2 -Werror)

# PROGRAM: runs, and of the client libraries loads what the host it was made from uses.
check_program() {
    local loaded
    loaded=$(LD_LIBRARY_PATH=$library ldd "$1" | grep -oE 'lib(curl|mariadb|mysqlclient)\b' | sort -u)
    case ${1##*/} in
    fetch*) [[ $loaded == libcurl ]] ;;
    query*) [[ $loaded == libmariadb || $loaded == libmysqlclient ]] ;;
    *) [[ -z $loaded ]] ;;
    esac || fail "$1 loads ${loaded:-no client library}"
    LD_LIBRARY_PATH=$library quietly "$1"
}

export PKG_CONFIG_PATH=$library/pkgconfig
for compiler in "gcc -std=c11" "clang -std=c11" "g++ -std=c++17" "clang++ -std=c++17"; do
    language=c
    [[ $compiler != *++* ]] || language=cpp
    for package in host:keel fetch:keel-ftp query:keel-mysql; do
        host=${package%:*}
        read -ra flags <<<"$(pkg-config --cflags --libs "${package#*:}")"
        for needed in --as-needed --no-as-needed; do
            quietly $compiler "${strict[@]}" "$host.$language" "-Wl,$needed" "${flags[@]}" -o "$host"
            check_program "./$host"
        done
    done
done

cat >hosts.cmake <<'HOST'
function(add_host name library)
    foreach(language c cpp)
        add_executable(${name}_${language} ${name}.${language})
        target_link_libraries(${name}_${language} PRIVATE keel::${library})
    endforeach()
endfunction()
add_host(host keel)
add_host(fetch ftp)
add_host(query mysql)
HOST

# LINES: the rest of the host's CMakeLists.txt.
configure() {
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(host LANGUAGES C CXX)' "$@" \
        >CMakeLists.txt
    cmake -G Ninja -S . -B hosts -DCMAKE_PREFIX_PATH="$prefix"
}

quietly configure "add_compile_options(${strict[*]})" \
    'find_package(keel 1.0 REQUIRED)' 'find_package(keel REQUIRED COMPONENTS ftp mysql)' \
    'include(hosts.cmake)' 'file(COPY_FILE host.c static.c)' 'file(COPY_FILE host.cpp static.cpp)' \
    'add_host(static static)'
quietly cmake --build hosts
for host in hosts/{host,static,fetch,query}_{c,cpp}; do
    check_program "$host"
done

# Where a client library is missing, what needs it is not found, and only that.
mkdir without
find $(pkg-config --variable pc_path pkg-config | tr : ' ') -name '*.pc' -exec ln -sft without {} + \
    2>/dev/null || true
rm without/{libmariadb,mysqlclient,mariadb}.pc 2>/dev/null || true
export PKG_CONFIG_LIBDIR=$prefix/without
pkg-config --exists keel-ftp || fail "pkg-config does not find keel-ftp without the other library"
! pkg-config --exists keel-mysql || fail "pkg-config finds keel-mysql without a client library"
pkg-config --exists keel || fail "pkg-config does not find keel without client libraries"

rm -r hosts # which remembers what pkg-config found
quietly configure 'find_package(keel REQUIRED COMPONENTS ftp OPTIONAL_COMPONENTS mysql nonsense)' \
    'if(NOT keel_ftp_FOUND OR keel_mysql_FOUND OR TARGET keel::mysql OR keel_nonsense_FOUND)' \
    '    message(FATAL_ERROR "${keel_ftp_FOUND} ${keel_mysql_FOUND} ${keel_nonsense_FOUND}")' \
    'endif()'

# COMPONENT REASON: where it is asked for, keel is not found, and the reason is told.
check_refused() {
    if configure "find_package(keel REQUIRED COMPONENTS $1)" >log 2>&1; then
        fail "CMake finds the component $1"
    fi
    [[ $(tr -s ' \n' ' ' <log) == *"$2"* ]] || fail "no '$2' in: $(cat log)"
}
check_refused mysql "component mysql needs"
check_refused nonsense "no component nonsense"
unset PKG_CONFIG_LIBDIR

# A project that holds the tree itself has the same names, and none of keel's own flags.
rm -r hosts
quietly configure "add_subdirectory($source keel)" 'include(hosts.cmake)'
commands=$(ninja -C hosts -t commands host_c query_cpp | grep -E -- '-c .*/(host|query)\.')
[[ $commands == *host.c* && $commands == *query.cpp* ]] || fail "no hosts in: $commands"
[[ $commands != *-Wconversion* && $commands != *-fstack* && $commands != *prefix-map* ]] ||
    fail "keel's own flags reach its hosts: $commands"
