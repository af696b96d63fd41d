#!/usr/bin/env bash
# Fuzzes what reads foreign text, on a bare Debian 12.
#   scripts/fuzz.sh [MINUTES]    runs every target for MINUTES (default 15); fails when there is a finding
#   scripts/fuzz.sh --minimise   takes what the runs reached into the corpus, in as few files as can be
#   scripts/fuzz.sh --coverage   tells how many lines of the readers the corpus covers
# The runs keep what they reach in build/fuzz/corpus and their findings in build/fuzz/findings; run a finding
# again with build/fuzz/tests/fuzz/TARGET FILE.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"

targets="searchReader termAggReader searchResponse idDecoder jsonEscaper params"
corpus=tests/data/corpus
bin=build/fuzz/tests/fuzz
reached=build/fuzz/corpus
findings=build/fuzz/findings

build_fuzzers() {
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -- --quiet
    for target in $targets; do
        mkdir -p "$reached/$target" "$findings"
    done
}

# fuzz MINUTES
fuzz() {
    build_fuzzers
    status=0
    for target in $targets; do
        echo "== $target, $1 minutes"
        shown=12
        "$bin/$target" -max_total_time="$(($1 * 60))" -max_len=8192 -timeout=10 -print_final_stats=1 \
            -dict=tests/data/tokens.dict -artifact_prefix="$findings/$target-" \
            "$reached/$target" "$corpus/$target" 2>"$findings/$target.log" || status=1 shown=60
        tail -n "$shown" "$findings/$target.log"
    done
    return $status
}

# What is made by hand stays. Of the rest only the branches that a file reaches count, not how often: that keeps
# the corpus small.
minimise() {
    build_fuzzers
    for target in $targets; do
        rm -rf "$reached/minimised"
        mkdir "$reached/minimised"
        cp "$corpus/$target"/made-* "$reached/minimised"
        "$bin/$target" -merge=1 -use_counters=0 -max_len=8192 "$reached/minimised" "$corpus/$target" \
            "$reached/$target" 2>"$findings/$target.log" || { tail "$findings/$target.log"; return 1; }
        rm -rf "${corpus:?}/$target"
        mv "$reached/minimised" "$corpus/$target"
        echo "$target: $(find "$corpus/$target" -type f | wc -l) files"
    done
}

# What the corpus reaches with the scanners of this processor; those of other kinds of processors are not compiled.
coverage() {
    cmake -S . -B build/coverage -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBUILD_MODULE=OFF \
        -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS="-fprofile-instr-generate -fcoverage-mapping" >/dev/null
    cmake --build build/coverage --target unitTests -- --quiet
    program=build/coverage/tests/unit/unitTests
    LLVM_PROFILE_FILE=$program.profraw "$program" --gtest_brief=1 --gtest_filter='Corpus.*'
    llvm-profdata merge -o $program.profdata $program.profraw
    llvm-cov report $program -instr-profile=$program.profdata -show-region-summary=false \
        elasticsearch src/parameterText.cpp
    llvm-cov show $program -instr-profile=$program.profdata elasticsearch >build/coverage/lines.txt
    echo "Line by line: build/coverage/lines.txt"
}

install_packages clang libclang-rt-dev llvm cmake ninja-build libutfcpp-dev libgtest-dev
case ${1-15} in
--minimise) minimise ;;
--coverage) coverage ;;
"" | 0* | *[!0-9]*) echo "Not a number of minutes: $1" >&2 && exit 2 ;;
*) fuzz "${1-15}" ;;
esac
