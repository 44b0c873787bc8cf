#!/usr/bin/env bash
# demo.sh [BUILD]: the agent watches a real QEMU that does what a break-out would do. See demo.py.
exec python3 "$(dirname "$0")/demo.py" "$@"
