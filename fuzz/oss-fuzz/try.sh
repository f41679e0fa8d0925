#!/usr/bin/env bash
# Runs build.sh as OSS-Fuzz does, for the address sanitizer, and replays what it packed.
set -eu -o pipefail
tree=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/src" "$work/out" "$work/work"
ln -s "$tree" "$work/src/keel"

flags='-O1 -gline-tables-only -fno-omit-frame-pointer -fsanitize=address -fsanitize-address-use-after-scope'
export SRC=$work/src OUT=$work/out WORK=$work/work SANITIZER=address ARCHITECTURE=x86_64 \
    FUZZING_ENGINE=libfuzzer LIB_FUZZING_ENGINE=-fsanitize=fuzzer CC=clang CXX=clang++ \
    CFLAGS="$flags -fsanitize=fuzzer-no-link" CXXFLAGS="$flags -fsanitize=fuzzer-no-link"
bash "$tree/fuzz/oss-fuzz/build.sh"

tried=0
for fuzzer in "$OUT"/*_fuzz; do
    unzip -q "${fuzzer}_seed_corpus.zip" -d "${fuzzer}_corpus"
    "$fuzzer" -runs=0 "${fuzzer}_corpus" 2>&1 | tee "$work/log"
    if grep -q 'starting from an empty corpus' "$work/log" || ldd "$fuzzer" | grep keel; then
        echo "$fuzzer: it has no seeds, or is linked with the shared library" >&2
        exit 1
    fi
    tried=$((tried + 1))
done
[ "$tried" = "$(ls "$tree"/fuzz/*_fuzz.cpp | wc -l)" ]
echo "$tried fuzzers built, and their seeds replayed"
