#!/usr/bin/env bash
# Every test: unit and component tests under the sanitizers, the fuzz targets for a few seconds each,
# then all tests of the release build, whose summary closes the output.
set -euo pipefail
umask 022  # files that others may write are refused by the agent
cd "$(dirname "$0")/.."

export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan-suppressions.txt

for preset in asan tsan release; do
    scripts/build.sh "$preset"
done
for preset in asan tsan; do
    echo "test: $preset"
    ctest --preset "$preset"
done
echo "test: fuzz"
scripts/fuzz.sh 5
echo "test: release"
ctest --preset release
