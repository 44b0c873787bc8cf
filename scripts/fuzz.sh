#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the fuzz targets and runs each for a time, from its corpus, which holds
# past findings too. A finding ends the run and stays in the build tree.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build.sh fuzz
cmake -DVMESCAPE_FUZZ_SECONDS="${1:-60}" build/fuzz >/dev/null
cmake --build build/fuzz --target fuzz_all -- -j1
echo "fuzz: no findings"
