#!/usr/bin/env bash
# Measures, on a bare Debian 12, how fast responses are read against well-known JSON parsers, and what whole queries
# take against the floor that their work must cost. Prints the ratios and their targets.
#
#   scripts/bench.sh               everything; writes docs/measurements.md and .svg
#   scripts/bench.sh --reader      the reader only
#   scripts/bench.sh --queries     the queries only
#   scripts/bench.sh --only ahead  one section of them: query, ahead, columns, small, growth or batch; can be repeated
#   scripts/bench.sh --quick       fewer rounds and documents, to see that all of it works
#
# What is not everything, or quick, writes its report to build/bench instead. The figures themselves stay there in
# reader.jsonl, queries.jsonl and SECTION.jsonl; bench/report.py makes one report of several such files. Let nothing
# else run on the machine meanwhile.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"

parts="" quick=
while [ $# -gt 0 ]; do
    case $1:${2:-} in
    --reader:*) parts="$parts reader" ;;
    --queries:*) parts="$parts queries" ;;
    --quick:*) quick=--quick ;;
    --only:query | --only:ahead | --only:columns | --only:small | --only:growth | --only:batch)
        parts="$parts $2"
        shift
        ;;
    *)
        echo "usage: ${0##*/} [--reader] [--queries] [--only SECTION] [--quick]" >&2
        exit 2
        ;;
    esac
    shift
done

# shellcheck disable=SC2086  # the lists are meant to be split
install_packages $BUILD_PACKAGES $PYTHON_PACKAGES libpq-dev libsimdjson-dev rapidjson-dev
build=build/bench
cmake --preset bench >/dev/null
cmake --build --preset bench -- --quiet

measure_reader() {
    $build/bench/reader/readerBench ${quick:+7} >$build/reader.jsonl
}

measure_queries() {
    for program in measure contents; do
        /usr/bin/python3 -B bench/query/$program.py --build $build $quick
    done >$build/queries.jsonl
}

measure_section() {
    /usr/bin/python3 -B bench/query/measure.py --build $build --only "$1" $quick >"$build/$1.jsonl"
}

report=$build
[ -n "$parts$quick" ] || report=docs
figures=()
for part in ${parts:-reader queries}; do
    echo "Measuring: $part ..." >&2
    case $part in
    reader | queries) "measure_$part" ;;
    *) measure_section "$part" ;;
    esac
    figures+=("$build/$part.jsonl")
done
/usr/bin/python3 -B bench/report.py "${figures[@]}" \
    --markdown $report/measurements.md --chart $report/measurements.svg
echo "Report: $report/measurements.md" >&2
