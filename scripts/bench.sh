#!/usr/bin/env bash
# bench.sh [BUILD]: everything that is measured, beside the peers, as one table.
#
# Kernel audit rules that the comparison sets are removed again. The machine should be idle.
set -euo pipefail
cd "$(dirname "$0")/.."

build=$(realpath "${1:-build/release}")
results=$build/bench/results
mkdir -p "$results"
rm -f "$results"/*

echo "bench: inbox" >&2
"$build/bench/InboxBench" --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/inbox.json" --benchmark_out_format=json >/dev/null
echo "bench: command task" >&2
"$build/bench/CommandTaskBench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/command_task.json" --benchmark_out_format=json >/dev/null
# name|what
while IFS='|' read -r name what; do
    echo "bench: $what" >&2
    python3 "bench/${name}_bench.py" "$build" --json "$results/$name.json" </dev/null >/dev/null
done <<'END'
agent|agent (several minutes)
latency|latencies (three minutes)
file|files (several minutes)
net|sockets (two minutes)
growth|growth (several minutes)
END
python3 bench/table.py "$results" | tee "$results/table.txt"
