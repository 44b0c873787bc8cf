#!/usr/bin/env bash
# build.sh PRESET [TARGET...]: configures (once) and builds one preset.
set -euo pipefail
umask 022  # files that others may write are refused by the agent
cd "$(dirname "$0")/.."

preset=$1
shift
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
if [ ! -f "build/$preset/build.ninja" ]; then
    echo "build: configuring $preset"
    cmake --preset "$preset" "${launcher[@]}" >/dev/null
fi
echo "build: $preset"
if [ $# -gt 0 ]; then
    cmake --build "build/$preset" --target "$@"
else
    cmake --build "build/$preset"
fi
