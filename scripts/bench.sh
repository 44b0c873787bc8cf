#!/usr/bin/env bash
# bench.sh [BUILD]: everything that is measured, beside the peers, as one table.
#
# Kernel audit rules that the comparison sets are removed again. The machine should be idle.
set -euo pipefail
cd "$(dirname "$0")/.."

build=$(realpath "${1:-build/release}")
results=$build/bench/results
mkdir -p "$results"

echo "bench: inbox" >&2
"$build/bench/InboxBench" --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/inbox.json" --benchmark_out_format=json >/dev/null
echo "bench: command task" >&2
"$build/bench/CommandTaskBench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/command_task.json" --benchmark_out_format=json >/dev/null
echo "bench: agent (several minutes)" >&2
python3 bench/agent_bench.py "$build" --json "$results/agent.json" >/dev/null
echo "bench: files" >&2
python3 bench/file_bench.py "$build" --json "$results/file.json" >/dev/null
echo "bench: sockets (two minutes)" >&2
python3 bench/net_bench.py "$build" --json "$results/net.json" >/dev/null
python3 bench/table.py "$results" | tee "$results/table.txt"
