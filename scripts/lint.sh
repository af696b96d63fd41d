#!/usr/bin/env bash
# clang-format over all C++, clang-tidy and cppcheck over the module's sources, on a bare Debian 12; fails when one has
# a finding.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
answer_help "$0" "$@"

# shellcheck disable=SC2086  # the list is meant to be split
install_packages $BUILD_PACKAGES libgtest-dev clang-format clang-tidy cppcheck git
ROOMS=(elasticsearch server http search src extension functions)
cmake --preset release >/dev/null # for its compile_commands.json

status=0
echo "== clang-format"
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror || status=1

echo "== clang-tidy"
# It counts on standard error what it found in other people's headers and does not show.
git ls-files "${ROOMS[@]}" | grep '\.cpp$' |
    xargs -P "$(nproc)" -n 1 clang-tidy -p build/release --quiet 2> >(grep -v 'warnings\? generated' >&2) ||
    status=1

echo "== cppcheck"
# Without: a finding of taste, and one about a function that is only called while an exception is handled.
cppcheck --quiet --std=c++17 --language=c++ --enable=warning,performance,portability,style \
    --library=scripts/cppcheck.cfg --suppress=useStlAlgorithm \
    --suppress=rethrowNoCurrentException:server/errorBoundary.cpp \
    --error-exitcode=1 -I inc -I . "${ROOMS[@]}" || status=1
exit $status
