#!/usr/bin/env bash
# Formats all sources. With --check: changes nothing and fails when a source would change.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(-i)
[ "${1:-}" != --check ] || mode=(--dry-run --Werror)
git ls-files -co --exclude-standard -- '*.h' '*.cpp' '*.c' | xargs -r clang-format "${mode[@]}"
