#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The fleet bench: N real daemons against the sandbox, one machine, a private network and process
# namespace, and the push server failing in four ways:
#   b-T   silent outage: the push port black-holed (nftables) for T s (30, 60, 10)
#   a-T   clean restart: every push connection closed, the port refusing for T s
#   c     rolling restart: the longest-open sixth of the connections closed every 10 s for 60 s
#   d-*   a clean restart of 10 s while the status service is slow (3 s) or failing (25 s)
# Each scenario queues an avatar change for every daemon when it starts; the bench records what
# reaches the services and the main applications. Then the model of the daemon's timing rules
# replays each scenario for the same fleet (checked against the measurement) and for 10^4..10^7
# daemons. Writes bench/results/fleet/: summary.md, the per-100 ms tables, model tables, charts.
#
#   bash bench/fleet/run.sh [--count N] [--quick]    as root; installs what is missing
#   bash bench/fleet/run.sh --render                 only the analysis, from the last raw data
#
# --quick: fewer outage lengths and no model sweep beyond 10^5 (for trying it out with a small N).
# Everything started here lives in the bench's own PID namespace: when the bench ends, however it
# ends, the kernel ends every process still in it.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${D627_FLEET_BUILD:-$root/build-fleet}
results=$root/bench/results/fleet
count=200
quick=0
render=0
while [ $# -gt 0 ]; do
    case "$1" in
    --count) count=$2 && shift ;;
    --quick) quick=1 ;;
    --render) render=1 ;;
    *)
        echo "usage: $0 [--count N] [--quick] | --render" >&2
        exit 2
        ;;
    esac
    shift
done
raw=$results/raw
quickopt=()
[ "$quick" = 1 ] && quickopt=(--quick)

if [ "$render" = 1 ]; then
    exec python3 "$root/bench/fleet/analyse.py" --raw "$raw" --results "$results" \
        --model "$build/bin/bench_fleet_model" "${quickopt[@]}"
fi

if [ -z "${D627_FLEET_INSIDE:-}" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "the fleet bench needs root (a network and PID namespace with nftables)" >&2
        exit 2
    fi
    bash "$root/tools/setup.sh" deps
    launcher=()
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    [ -f "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DD627_BUILD_TESTS=OFF \
        -DD627_BUILD_BENCH=ON "${launcher[@]}" >/dev/null
    cmake --build "$build" -j2 --target d627 ec627 d627-sandbox bench_fleet_apps bench_fleet_model
    mkdir -p "$raw"
    D627_FLEET_INSIDE=1 exec unshare --net --pid --fork --mount-proc bash "$0" --count "$count" \
        "${quickopt[@]}"
fi

# From here on: PID 1 of the bench's namespaces, loopback only.
ip link set lo up
ulimit -n 65536 2>/dev/null || true
export LD_LIBRARY_PATH=$build/lib TZ=UTC
bin=$build/bin
work=$(mktemp -d /tmp/d627-fleet.XXXXXX)
stagger=$((60000 / count)) # the daemons start over one minute: their heartbeats are spread

cleanup() {
    set +e
    [ -n "${fleet_pid:-}" ] && { echo quit >&3; wait "$fleet_pid"; } 2>/dev/null
    [ -n "${sandbox_pid:-}" ] && kill "$sandbox_pid" 2>/dev/null && wait "$sandbox_pid" 2>/dev/null
    nft delete table inet fleet 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

nowms() { date +%s%3N; }
mark() { echo "$(nowms) $*" >>"$raw/marks"; }
ctl() { curl -s --max-time 5 "http://127.0.0.1:18627/control/$1" >/dev/null; }
say() { echo "[$(date +%T)] fleet: $*"; }
# Daemons whose query was answered after the given mark (the analysis reads the sandbox log).
answered_since() { python3 "$root/bench/fleet/analyse.py" --raw "$raw" --answered-since "$1"; }
wait_answered() { # wait_answered <since ms> <timeout s>: until the whole fleet is back
    local end=$(($(date +%s) + $2)) n=0
    while [ "$(date +%s)" -lt "$end" ]; do
        n=$(answered_since "$1")
        [ "$n" -ge "$count" ] && return 0
        sleep 1
    done
    say "only $n of $count daemons answered within $2 s"
}

rm -f "$raw"/*
echo "$count" >"$raw/count"
# The kernel's tick counter against the monotonic clock, twice: the model rounds the kernel's
# timers (keepalive, retransmissions) on it as the timer wheel does.
for _ in 1 2; do
    awk '/^now at/ { now = $3 } /^jiffies:/ { print now, $2; exit }' /proc/timer_list >>"$raw/jiffies"
    sleep 1
done
mark bench begin
# A service in front of a fleet takes a whole wave into its accept queue; Qt's default (50) would
# drop most of it and have the kernels try again a second later (see backlog50.md).
"$bin/d627-sandbox" --backlog 4096 >"$raw/sandbox.log" 2>&1 </dev/null &
sandbox_pid=$!
for _ in $(seq 50); do curl -s --max-time 1 http://127.0.0.1:18627/control/status >/dev/null && break; sleep 0.1; done
mkfifo "$work/fleet.in"
exec 3<>"$work/fleet.in"
say "starting $count daemons, one every $stagger ms"
"$bin/bench_fleet_apps" --daemon "$bin/d627" --count "$count" --work "$work" \
    --stagger-ms "$stagger" --loglevel 0 <&3 >"$raw/apps.log" 2>"$raw/apps.err" &
fleet_pid=$!
settle=$(nowms)
wait_answered "$settle" 180
sleep 8
say "fleet settled: $(answered_since "$settle") daemons connected"

blackhole() { # blackhole <T>
    local name=b-$1
    say "$name: push port black-holed for $1 s"
    mark "$name" begin
    ctl "avatar?url=http://fleet.invalid/$name.png&every=1&drop=0"
    nft add table inet fleet
    nft add chain inet fleet in '{ type filter hook input priority 0; }'
    nft add rule inet fleet in tcp dport 18628 drop
    nft add rule inet fleet in tcp sport 18628 drop
    mark "$name" fail
    sleep "$1"
    nft delete table inet fleet
    mark "$name" restore
    # The kernel fails a silent connection within 55 s of the hole's start (a keepalive probe
    # unanswered for 10 s, a heartbeat unacknowledged for 25 s), and a connection attempt into
    # the hole gives up after 30 s: the fleet is back within 65 s of the hole's end.
    sleep 65
    ctl clear
    mark "$name" end
}

restart() { # restart <name> <T> [status service mode]
    local name=$1 t=$2 sso=${3:-}
    say "$name: push server down for $t s${sso:+, status service $sso}"
    mark "$name" begin
    ctl "avatar?url=http://fleet.invalid/$name.png&every=1&drop=0"
    case "$sso" in
    slow) ctl "sso?mode=slow&delay=3000" ;;
    failing) ctl "sso?mode=error&status=503" ;;
    esac
    ctl "push?listen=0"
    local fail
    fail=$(nowms)
    mark "$name" fail
    sleep "$t"
    ctl "push?listen=1"
    mark "$name" restore
    if [ "$sso" = failing ]; then
        sleep $((25 - t)) # between two of the daemons' 10 s repeats
        ctl "sso?mode=ok"
        mark "$name" status-back
    fi
    wait_answered "$fail" 120
    sleep 8
    ctl "sso?mode=ok"
    ctl clear
    mark "$name" end
}

rolling() {
    local name=c slice=$(((count + 5) / 6))
    say "c: rolling restart, $slice connections closed every 10 s for 60 s"
    mark c begin
    ctl "avatar?url=http://fleet.invalid/c.png&every=1&drop=0"
    local fail
    fail=$(nowms)
    mark c fail
    for i in 1 2 3 4 5 6; do
        ctl "drop?count=$slice"
        mark c slice
        [ "$i" -lt 6 ] && sleep 10
    done
    mark c restore
    wait_answered "$fail" 120
    sleep 8
    ctl clear
    mark c end
}

if [ "$quick" = 1 ]; then
    blackhole 60
    restart a-0 0
    restart a-30 30
    rolling
    restart d-slow 10 slow
    restart d-failing 10 failing
else
    blackhole 30
    blackhole 60
    blackhole 10
    restart a-0 0
    restart a-10 10
    restart a-30 30
    restart a-60 60
    rolling
    restart d-slow 10 slow
    restart d-failing 10 failing
fi
mark bench end
echo quit >&3
wait "$fleet_pid" || true
fleet_pid=
say "fleet stopped; analysing"
python3 "$root/bench/fleet/analyse.py" --raw "$raw" --results "$results" \
    --model "$bin/bench_fleet_model" "${quickopt[@]}"
