#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2317  # cleanup runs from the EXIT trap
# Recovery on a real link: for each fault kind, N trials of the fault followed by an avatar change
# queued at the sandbox, timed from the fault to the change reaching the main application
# (d627-mainapp's own timestamp). Loopback is given an Ethernet MTU (1500) in a private network
# namespace; the push server listens on 127.0.0.2, which sits on an interface of the run's own
# (d627r0), so that the daemon's push connection has that address as its local one.
#
# Kinds:
#   drop       the sandbox closes the connection (the path every other kind should end in)
#   long       a 64 kB answer of random text at 256 kbit (tc tbf)
#   blackhole  the live connection alone goes silent (nft drop on its client port)
#   addr       the connection's local address (127.0.0.2/32 on d627r0) is removed
#   link       d627r0 goes down, and up again a second later
# In all but drop and long the change is queued without closing the connection: only the daemon's
# own detection of the fault brings it.
#
#   bench/reallink.sh [trials] [kinds...]    default 20 trials of every kind; needs root (a
#                                            private network namespace), iproute2, nftables, curl
#   bench/reallink.sh --render               only remakes <name>.md from <name>.tsv
#   D627_BUILD_DIR      build with d627, d627-sandbox, d627-mainapp and ec627 (default build/)
#   D627_REALLINK_TIMEOUT  seconds a trial may take before it counts as lost (default 300)
#   D627_REALLINK_NAME  base name of the results (default reallink); runs in namespaces of their
#                       own do not meet, so two runs with different names can go side by side
# Writes bench/results/<name>.tsv (kind, trial, milliseconds or -1 for lost) and <name>.md
# (per kind: trials, delivered, median, p99, max; lost trials count as the timeout, shown ">").
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${D627_BUILD_DIR:-$root/build}
mode=run
if [ "${1:-}" = --render ]; then
    mode=render
    shift
fi
trials=${1:-20}
shift || true
kinds=${*:-drop long blackhole addr link}
timeout=${D627_REALLINK_TIMEOUT:-300}
results=$root/bench/results
name=${D627_REALLINK_NAME:-reallink}

# Per kind, nearest-rank percentiles; a lost trial counts as the timeout (shown ">").
render() {
    local tsv=$results/$name.tsv head cap kind n lost p99 v
    head=$(sed -n 's/^# //p' "$tsv" | head -n 1)
    cap=$(($(awk '/^# timeout/ { print $3; exit }' "$tsv") * 1000))
    show() { awk -v ms="$1" -v cap="$cap" 'BEGIN { printf "%s%.1f s", (ms >= cap ? ">" : ""), ms / 1000 }'; }
    {
        echo "| fault | trials | delivered | median | p99 | max |"
        echo "|---|---|---|---|---|---|"
        for kind in $(grep -v '^#' "$tsv" | cut -f1 | uniq); do
            mapfile -t v < <(awk -F'\t' -v k="$kind" -v cap="$cap" \
                '$1 == k { print ($3 < 0 ? cap : $3) }' "$tsv" | sort -n)
            n=${#v[@]}
            lost=$(awk -F'\t' -v k="$kind" '$1 == k && $3 < 0' "$tsv" | wc -l)
            p99=$(((n * 99 + 99) / 100))
            echo "| $kind | $n | $((n - lost)) | $(show "${v[$(((n - 1) / 2))]}") |" \
                "$(show "${v[$((p99 - 1))]}") | $(show "${v[$((n - 1))]}") |"
        done
        echo
        echo "$head"
    } | tee "$results/$name.md"
}
if [ "$mode" = render ]; then
    render
    exit
fi

if [ -z "${D627_NETNS:-}" ]; then
    # shellcheck disable=SC2086  # the kinds are words
    exec env D627_LINK_MTU=1500 "$root/tests/support/netns.sh" "$0" "$trials" $kinds
fi

bin=$build/bin
for f in d627 d627-sandbox d627-mainapp; do
    [ -x "$bin/$f" ] || { echo "reallink: $bin/$f is missing (build d627 d627-sandbox d627-mainapp ec627)" >&2; exit 1; }
done
http_port=18627
push_port=18628
work=$(mktemp -d "${TMPDIR:-/tmp}/d627-reallink.XXXXXX")
mkdir -p "$work/tmp" "$work/home"
export TMPDIR=$work/tmp HOME=$work/home LD_LIBRARY_PATH=$build/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
unset XDG_RUNTIME_DIR
sandbox_log=$work/sandbox.log
mainapp_log=$work/mainapp.log
sandbox_pid=
mainapp_pid=

cleanup() {
    trap - EXIT
    exec 3>&- 2>/dev/null || true
    [ -n "$mainapp_pid" ] && kill "$mainapp_pid" 2>/dev/null
    local lock pid
    for lock in "$TMPDIR"/*; do # the daemon's lock file holds its pid on the first line
        pid=$(head -n 1 "$lock" 2>/dev/null | grep -E '^[0-9]+$') || continue
        tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q "$bin/d627" && kill "$pid" 2>/dev/null
    done
    [ -n "$sandbox_pid" ] && kill "$sandbox_pid" 2>/dev/null
    wait 2>/dev/null || true
    if [ "${D627_REALLINK_KEEP:-0}" = 1 ]; then echo "reallink: kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

now_ms() { # milliseconds since midnight, as the stand-ins stamp their lines
    local t
    t=$(date +%H:%M:%S.%3N)
    stamp_ms "$t"
}
stamp_ms() { # hh:mm:ss.zzz -> milliseconds since midnight
    local h m s
    IFS=: read -r h m s <<<"$1"
    echo $(((10#$h * 3600 + 10#$m * 60) * 1000 + 10#${s%.*} * 1000 + 10#${s#*.}))
}
ctl() {
    curl -s --max-time 5 "http://127.0.0.1:$http_port/control/$1" | grep -q '"ok":true' ||
        { echo "reallink: the sandbox refused $1" >&2; return 1; }
}
running() { cat "$HOME"/Documents/627log/support/*.log 2>/dev/null | grep -c "current process is 4!" || true; }
# The daemon's live push connection: "<local address>:<port>", empty when there is none.
connection() {
    ss -Htn state established "( dport = :$push_port )" | awk '{ print $3 }' | tail -n 1
}
# wait_until SECONDS COMMAND...: polls the command every 0.1 s; false on time-out.
wait_until() {
    local deadline=$(($(date +%s) + $1))
    shift
    until "$@"; do
        [ "$(date +%s)" -ge "$deadline" ] && return 1
        sleep 0.1
    done
}
running_after() { [ "$(running)" -gt "$1" ]; }
on_dummy() { case "$(connection)" in 127.0.0.2:*) return 0 ;; *) return 1 ;; esac }
delivered() { grep -F "\"user_face\":\"$1\"" "$mainapp_log" | tail -n 1 | sed -n 's/^\[\([0-9:.]*\)\].*/\1/p'; }
has_delivered() { [ -n "$(delivered "$1")" ]; }

# The interface of the run's own, with the push server's address on it.
ip link add d627r0 type dummy 2>/dev/null || ip link add d627r0 type ifb
ip link set d627r0 up
ip addr add 127.0.0.2/32 dev d627r0

"$bin/d627-sandbox" --http-port "$http_port" --push-port "$push_port" </dev/null >"$sandbox_log" 2>&1 &
sandbox_pid=$!
wait_until 10 grep -q "ready:" "$sandbox_log" || { echo "reallink: the sandbox did not start" >&2; exit 1; }
ctl "push?host=127.0.0.2"
mkfifo "$work/mainapp.in"
"$bin/d627-mainapp" --daemon "$bin/d627" --loglevel 1 --lockfile "$TMPDIR/mainapp.lock" \
    <"$work/mainapp.in" >"$mainapp_log" 2>&1 &
mainapp_pid=$!
exec 3>"$work/mainapp.in"
wait_until 60 running_after 0 || { echo "reallink: the daemon did not reach its running step" >&2; exit 1; }

mkdir -p "$results"
tsv=$results/$name.tsv
printf '# timeout %s s, %s trial(s) per kind, MTU 1500, %s\n' "$timeout" "$trials" \
    "$(date -u '+%Y-%m-%d %H:%M UTC')" >"$tsv"
for kind in $kinds; do
    echo "== $kind: $trials trial(s)"
    for trial in $(seq "$trials"); do
        # A fresh connection from 127.0.0.2, in its running step, before each fault.
        if ! on_dummy; then
            before=$(running)
            ctl drop
            wait_until 120 running_after "$before" || true
            wait_until 60 on_dummy || { echo "reallink: no connection from 127.0.0.2" >&2; exit 1; }
        fi
        if [ "$kind" = long ]; then
            tc qdisc replace dev lo root tbf rate 256kbit burst 3000 latency 2s
        fi
        face="http://127.0.0.1/reallink/$kind-$trial.png"
        port=$(connection)
        port=${port##*:}
        before=$(running)
        start=$(now_ms)
        case "$kind" in
        drop) ctl "avatar?url=$face" ;;
        long) ctl "avatar?url=$face&pad=65536" ;;
        blackhole)
            nft add table inet d627reallink
            nft add chain inet d627reallink out '{ type filter hook output priority 0; }'
            nft add rule inet d627reallink out tcp sport "$port" drop
            nft add rule inet d627reallink out tcp dport "$port" drop
            ctl "avatar?url=$face&drop=0"
            ;;
        addr)
            ip addr del 127.0.0.2/32 dev d627r0
            ctl "avatar?url=$face&drop=0"
            ;;
        link)
            ip link set d627r0 down
            ctl "avatar?url=$face&drop=0"
            sleep 1
            ip link set d627r0 up
            ;;
        *) echo "reallink: unknown kind $kind" >&2; exit 2 ;;
        esac
        if wait_until "$timeout" has_delivered "$face"; then
            ms=$(($(stamp_ms "$(delivered "$face")") - start))
            [ "$ms" -lt 0 ] && ms=$((ms + 86400000)) # past midnight
        else
            ms=-1
        fi
        printf '%s\t%s\t%s\n' "$kind" "$trial" "$ms" | tee -a "$tsv"
        # Undo the fault; a lost change is fetched by a new connection before the next trial.
        case "$kind" in
        long) tc qdisc del dev lo root ;;
        blackhole) nft delete table inet d627reallink ;;
        addr) ip addr add 127.0.0.2/32 dev d627r0 ;;
        esac
        if [ "$ms" -lt 0 ]; then
            ctl drop
            wait_until 120 has_delivered "$face" || true
        fi
        wait_until 120 running_after "$before" || true
    done
done
tc qdisc del dev lo root 2>/dev/null || true

render
