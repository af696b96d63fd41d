#!/usr/bin/env bash
# Measures, on a bare Debian 12, how fast responses are read against well-known JSON parsers, and what whole queries
# take against the floor that their work must cost. Prints the ratios and their targets.
#
#   scripts/bench.sh               everything; writes docs/measurements.md and .svg
#   scripts/bench.sh --reader      the reader only
#   scripts/bench.sh --queries     the queries only
#   scripts/bench.sh --quick       fewer rounds and documents, to see that all of it works
#
# What is not everything, or quick, writes its report to build/bench instead. The figures themselves stay in
# build/bench/reader.jsonl and queries.jsonl. Let nothing else run on the machine meanwhile.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"

parts="" quick=
for option in "$@"; do
    case $option in
    --reader) parts="$parts reader" ;;
    --queries) parts="$parts queries" ;;
    --quick) quick=--quick ;;
    *)
        echo "usage: ${0##*/} [--reader] [--queries] [--quick]" >&2
        exit 2
        ;;
    esac
done

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES libpq-dev libsimdjson-dev rapidjson-dev
build=build/bench
cmake --preset bench >/dev/null
cmake --build --preset bench -- --quiet

measure_reader() {
    echo "Measuring the reader ..." >&2
    $build/bench/reader/readerBench ${quick:+7} >$build/reader.jsonl
}

measure_queries() {
    echo "Measuring the queries ..." >&2
    for program in measure contents; do
        /usr/bin/python3 -B bench/query/$program.py --build $build $quick
    done >$build/queries.jsonl
}

report=$build
[ -n "$parts$quick" ] || report=docs
figures=()
for part in ${parts:-reader queries}; do
    "measure_$part"
    figures+=("$build/$part.jsonl")
done
/usr/bin/python3 -B bench/report.py "${figures[@]}" \
    --markdown $report/measurements.md --chart $report/measurements.svg
echo "Report: $report/measurements.md" >&2
