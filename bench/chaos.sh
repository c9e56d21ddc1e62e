#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A long chaos run: the chaos suite's schedule of overlapping faults (nftables loss, black holes
# and resets, a tc tbf cap, and a proxy's delay, jitter, stalls and sliced writes) for as long as
# asked, from a seed that reproduces it. Writes, under bench/results/:
#   chaos.tsv   one line per fault phase: start, faults, how long they lasted, how long the main
#               application then waited for the latest change (the recovery), connections and
#               status checks so far
#   chaos.md    recovery median, p99 and max
#   chaos.svg   connections, status checks and recoveries over time (gnuplot)
#   chaos-log.txt  d627-logview's summary of the daemon's log of the run
#
#   bench/chaos.sh [seconds] [seed]     default 1800 s, seed 627; needs root (a private network
#                                       namespace with nftables and tc), nftables, gnuplot-nox
#   bench/chaos.sh --render             only remakes chaos.md and chaos.svg from chaos.tsv
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${D627_BUILD_DIR:-$root/build}
results=$root/bench/results
seconds=${1:-1800}
seed=${2:-627}

if [ "$seconds" != --render ]; then
    [ -n "${D627_CHAOS_NO_BUILD:-}" ] || cmake --build "$build" --target tst_chaos d627 d627-sandbox ec627
    start=$(date -u '+%Y-%m-%d %H:%M UTC')
    # Qt Test ends a test function after 5 minutes unless told otherwise.
    LD_LIBRARY_PATH=$build/lib QTEST_FUNCTION_TIMEOUT=$(((seconds * 2 + 900) * 1000)) \
        D627_CHAOS_SECONDS=$seconds D627_CHAOS_SEED=$seed \
        D627_CHAOS_RESULTS=$results/chaos.tsv \
        "$root/tests/support/netns.sh" "$build/bin/tst_chaos" -o "$build/chaos-run.txt,txt"
    echo "# seed $seed, $seconds s of faults, $start" >>"$results/chaos.tsv"
    # What the daemon's own log says about the run.
    logs=$build/test-logs/tst_chaos/chaos-long
    "$build/bin/d627-logview" "$logs"/*.log >"$results/chaos-log.txt" || true
    head -40 "$results/chaos-log.txt"
fi

# Recovery figures (milliseconds), nearest-rank percentiles.
grep -v '^#' "$results/chaos.tsv" | cut -f5 | sort -n | awk -v out="$results/chaos.md" '
    { v[NR] = $1 }
    END {
        if (NR == 0) { print "no phases" > "/dev/stderr"; exit 1 }
        p99 = int(NR * 0.99 + 0.999); if (p99 > NR) p99 = NR
        line = sprintf("| phases | recovery median | p99 | max |\n|---|---|---|---|\n| %d | %.1f s | %.1f s | %.1f s |",
                       NR, v[int((NR + 1) / 2)] / 1000, v[p99] / 1000, v[NR] / 1000)
        print line; print line > out
    }'
grep '^# seed' "$results/chaos.tsv" | tail -1 | sed 's/^# /\n/' >>"$results/chaos.md"

gnuplot <<PLOT
set terminal svg size 900,420 dynamic font "sans,11"
set output "$results/chaos.svg"
set title "Chaos run: connections, status checks and recoveries"
set xlabel "time since the first fault (s)"
set ylabel "count so far"
set y2label "recovery after the phase (s)"
set y2tics
set ytics nomirror
set key left top
set datafile separator "\t"
plot "$results/chaos.tsv" using 2:6 with steps title "push connections", \
     "" using 2:7 with steps title "status checks", \
     "" using 2:(\$5/1000) axes x1y2 with points pt 7 ps 0.5 title "recovery (s)"
PLOT
echo "wrote $results/chaos.tsv, chaos.md and chaos.svg"
