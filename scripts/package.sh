#!/usr/bin/env bash
# package.sh [BUILD]: makes the Debian package in a build tree, and prints its path.
set -euo pipefail
umask 022
cd "$(dirname "$0")/.."

build=$(realpath "${1:-build/release}")
cd "$build"
rm -f vmescape-agent_*.deb
if ! cpack -G DEB >package.log 2>&1; then
    tail -n 30 package.log >&2
    echo "package: failed; the lines above are the end of $build/package.log" >&2
    exit 1
fi
ls "$build"/vmescape-agent_*.deb
