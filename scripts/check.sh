#!/usr/bin/env bash
# Formatting, the rules of the house, and static analysis. Needs the release build's compile commands.
set -uo pipefail
cd "$(dirname "$0")/.."

failed=0
complain() {
    echo "check: $1" >&2
    failed=1
}

sources() { git ls-files -co --exclude-standard -- "$@"; }

echo "check: formatting"
scripts/format.sh --check || complain "sources are not formatted, run 'make format'"

echo "check: rules of the house"

# A room includes only headers of interface/ and its own; only tests, benchmarks and fuzz targets look inside.
walls=$(sources '*/src/*.h' '*/src/*.cpp' 'interface/*.h' | xargs grep -nE '#include "(\.\.|.*/src/)' || true)
[ -z "$walls" ] || complain "includes across a wall:"$'\n'"$walls"

# Every class has a test file of its own name.
for header in $(sources '*/src/*.h' 'interface/sdk/*.h' 'interface/framework/*.h'); do
    class=$(basename "$header" .h)
    grep -qE "^(class|struct) .*\b$class\b[^;]*$" "$header" || continue
    tested=$(sources "tests/*${class}Test.cpp" "tests/*${class}*Test.cpp")
    grep -q "^$class " scripts/tested-elsewhere.txt || [ -n "$tested" ] ||
        complain "$header has no ${class}Test.cpp"
done

# Tests wait for conditions, never for the clock.
sleeps=$(sources 'tests/*.cpp' 'tests/*.h' | grep -v '^tests/support/' |
    xargs grep -nE '\b(sleep_for|sleep_until|usleep|nanosleep)\(|[^.a-zA-Z_]sleep\(' || true)
[ -z "$sleeps" ] || complain "sleeps in tests:"$'\n'"$sleeps"

# What the product says must not name the machine that it was built on.
paths=$(git ls-files -co --exclude-standard | grep -v '^scripts/check.sh$' |
    xargs grep -nIE '/work/|/home/[a-z]+/|/tmp/team' || true)
[ -z "$paths" ] || complain "paths of one machine:"$'\n'"$paths"

echo "check: static analysis"
[ -f build/release/compile_commands.json ] || scripts/build.sh release
python3 scripts/strip_commands.py build/release/compile_commands.json build/tidy
sources '*/src/*.cpp' |
    xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/tidy >build/tidy/findings.txt 2>/dev/null ||
    complain "static analysis found:"$'\n'"$(grep -E ' (error|warning): ' build/tidy/findings.txt | sort -u)"

[ "$failed" -eq 0 ] && echo "check: good"
exit "$failed"
