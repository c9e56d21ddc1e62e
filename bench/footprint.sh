#!/usr/bin/env bash
# Memory and start-up footprint of the daemon: starts the sandbox and the daemon in a private
# temporary folder, logs in, waits for the running step, and prints the daemon's resident
# memory (now and peak), thread count and the time from login to the running step.
# Usage: bench/footprint.sh [build dir]   (uses the service ports of the build, 18627 by default)
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
work=$(mktemp -d)
mkdir -p "$work/tmp"
export TMPDIR=$work/tmp HOME=$work LD_LIBRARY_PATH=$build/lib
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$work"; }
trap cleanup EXIT

"$build/bin/d627-sandbox" >"$work/sandbox.log" 2>&1 </dev/null &
pids+=($!)
"$build/bin/d627" >"$work/daemon.log" 2>&1 &
daemon=$!
pids+=($daemon)
sleep 0.5
start=$(date +%s.%N)
sleep 30 | "$build/bin/d627-mainapp" --daemon "$build/bin/d627" --user-id 10001 --loglevel 1 \
    --lockfile "$work/mainapp.lock" >"$work/mainapp.log" 2>&1 &
pids+=($!)
for _ in $(seq 1 200); do
    grep -q "current process is 4!" "$work/daemon.log" 2>/dev/null && break
    sleep 0.05
done
end=$(date +%s.%N)
grep -q "current process is 4!" "$work/daemon.log" || { echo "the daemon did not reach the running step"; exit 1; }
sleep 1
awk -v s="$start" -v e="$end" 'BEGIN { printf "login to running step   %.2f s (five 1 s steps included)\n", e - s }'
grep -E "VmRSS|VmHWM|Threads" "/proc/$daemon/status" | sed 's/\t/ /g; s/  */ /g'
