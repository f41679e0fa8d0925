#!/bin/bash -eu
# Builds the fuzzers within OSS-Fuzz, whose environment says how: the compilers and their flags, the
# fuzzing engine, and where the tree ($SRC/keel) and the results ($OUT) lie.
tree=$SRC/keel
build=$WORK/keel

# No build type: what is optimised and checked is decided by $CFLAGS and $CXXFLAGS alone.
cmake -G Ninja -S "$tree" -B "$build" -DCMAKE_BUILD_TYPE=None -DKEEL_TESTS=OFF -DKEEL_EXAMPLES=OFF \
    -DKEEL_FUZZ=ON -DKEEL_FUZZ_ENGINE="$LIB_FUZZING_ENGINE"
cmake --build "$build" --target keel_fuzzers

for source in "$tree"/fuzz/*_fuzz.cpp; do
    fuzzer=$(basename "$source" .cpp)
    cp "$build/fuzz/$fuzzer" "$OUT/"
    zip -jqr "$OUT/${fuzzer}_seed_corpus.zip" "$tree/fuzz/seeds/${fuzzer%_fuzz}"
done
