#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2317  # cleanup and its helpers run from the EXIT trap
# A one-minute story of the d627 daemon, played entirely on this machine:
#   d627-sandbox  - the push-address service, the sign-on status service and the push server
#   d627-mainapp  - the main application, which starts the daemon and prints what it hears
#   d627          - the daemon in between
# Everything runs in a fresh temporary folder (TMPDIR and HOME point into it) and talks only
# to 127.0.0.1. Nothing is left running afterwards.
#
# Usage: tools/demo.sh [build-dir]      (default: ./build)
#        DEMO_KEEP=1 tools/demo.sh ...  keeps the folder with all logs, the daemon's included
#        DEMO_TIMELINE=FILE.svg ...     also draws the timeline of the daemon's log (d627-logview)

set -u

BUILD=${1:-./build}
if ! BUILD=$(cd "$BUILD" 2>/dev/null && pwd); then
    echo "demo: build folder '${1:-./build}' not found (build first, or pass the build folder)" >&2
    exit 1
fi
BIN=$BUILD/bin
LIB=$BUILD/lib
for f in "$BIN/d627" "$BIN/d627-sandbox" "$BIN/d627-mainapp"; do
    if [ ! -x "$f" ]; then
        echo "demo: $f is missing; build the targets d627 d627-sandbox d627-mainapp ec627" >&2
        exit 1
    fi
done
if [ ! -e "$LIB/libec627.so" ]; then
    echo "demo: $LIB/libec627.so is missing; build the target ec627" >&2
    exit 1
fi

# The daemon has its service addresses compiled in; serve them where it will look.
HTTP_PORT=18627
SSO_URL=$(sed -n 's/^D627_SSO_STATUS_URL:[A-Z]*=//p' "$BUILD/CMakeCache.txt" 2>/dev/null)
case "$SSO_URL" in
http://127.0.0.1:*)
    HTTP_PORT=${SSO_URL#http://127.0.0.1:}
    HTTP_PORT=${HTTP_PORT%%/*}
    ;;
"") ;;
*)
    echo "demo: this build asks $SSO_URL for the login status; the demo needs a build whose" >&2
    echo "      services are on http://127.0.0.1:<port> (the default)" >&2
    exit 1
    ;;
esac
PUSH_PORT=$((HTTP_PORT + 1))

WORK=$(mktemp -d "${TMPDIR:-/tmp}/d627-demo.XXXXXX") || exit 1
mkdir -p "$WORK/tmp" "$WORK/home"
export TMPDIR=$WORK/tmp
export HOME=$WORK/home
export LD_LIBRARY_PATH=$LIB${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
SANDBOX_LOG=$WORK/sandbox.log
MAINAPP_LOG=$WORK/mainapp.log
: >"$SANDBOX_LOG"
: >"$MAINAPP_LOG"

SANDBOX_PID=
MAINAPP_PID=
EXPECT_MAINAPP=0 # 1 while the main application is supposed to be running
TAIL_PIDS=
START=$(date +%s)

daemon_pid() {
    # The daemon's single-instance lock file is the only other file in our TMPDIR with a pid in it.
    local f
    for f in "$TMPDIR"/*; do
        [ -f "$f" ] || continue
        [ "$f" = "$TMPDIR/mainapp.lock" ] && continue
        head -n 1 "$f" 2>/dev/null | grep -E '^[0-9]+$' && return 0
    done
    return 1
}

stop_pid() { # pid: TERM, then KILL if it is still there after a second
    local pid=$1
    [ -n "$pid" ] || return 0
    kill "$pid" 2>/dev/null || return 0
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null
}

cleanup() {
    trap - EXIT INT TERM
    exec 3>&- 2>/dev/null
    local dpid
    dpid=$(daemon_pid)
    stop_pid "$MAINAPP_PID"
    # Only the daemon that this demo started (its pid from the lock file in our own TMPDIR).
    if [ -n "$dpid" ] && tr '\0' ' ' <"/proc/$dpid/cmdline" 2>/dev/null | grep -q "$BIN/d627"; then
        stop_pid "$dpid"
    fi
    stop_pid "$SANDBOX_PID"
    sleep 0.2 # let the tails show the last lines
    for pid in $TAIL_PIDS; do
        kill "$pid" 2>/dev/null
    done
    # shellcheck disable=SC2086  # a list of pids
    wait $TAIL_PIDS "$SANDBOX_PID" "$MAINAPP_PID" 2>/dev/null
    if [ "${DEMO_KEEP:-0}" = 1 ]; then
        echo "demo: logs kept in $WORK (daemon log under home/Documents/627log/support)"
    else
        rm -rf "$WORK"
    fi
}
trap cleanup EXIT
trap 'echo; echo "demo: interrupted"; exit 130' INT TERM

if [ -t 1 ]; then
    BOLD=$(printf '\033[1m')
    PLAIN=$(printf '\033[0m')
else
    BOLD=
    PLAIN=
fi
step() { printf '\n%s==> %s%s\n' "$BOLD" "$*" "$PLAIN"; }
note() { printf '    %s\n' "$*"; }
fail() {
    printf '\ndemo: %s\n' "$*" >&2
    DEMO_KEEP=1 # keep the logs for a look
    exit 1
}

# count FILE PATTERN: lines of FILE that contain the fixed text PATTERN.
count() { grep -cF -- "$2" "$1" 2>/dev/null || true; }

# wait_count FILE PATTERN N SECONDS: waits until PATTERN has appeared N times in FILE.
wait_count() {
    local file=$1 pattern=$2 n=$3 deadline=$(($(date +%s) + $4))
    while [ "$(count "$file" "$pattern")" -lt "$n" ]; do
        [ "$(date +%s)" -ge "$deadline" ] && fail "gave up waiting for '$pattern' in $(basename "$file")"
        if [ "$EXPECT_MAINAPP" = 1 ] && ! kill -0 "$MAINAPP_PID" 2>/dev/null; then
            sleep 0.3 # the last lines may still be on their way
            [ "$(count "$file" "$pattern")" -ge "$n" ] && break
            fail "the main application ended early, while waiting for '$pattern'"
        fi
        sleep 0.1
    done
}

# wait_next FILE PATTERN SECONDS: waits for one more PATTERN line than there is now.
wait_next() { wait_count "$1" "$2" $(($(count "$1" "$2") + 1)) "$3"; }

# ctl COMMAND?QUERY: one request to the sandbox's control interface.
ctl() {
    local reply
    if command -v curl >/dev/null 2>&1; then
        reply=$(curl -s --max-time 5 "http://127.0.0.1:$HTTP_PORT/control/$1")
    else
        exec 4<>"/dev/tcp/127.0.0.1/$HTTP_PORT" || fail "cannot reach the sandbox"
        printf 'GET /control/%s HTTP/1.0\r\n\r\n' "$1" >&4
        reply=$(sed -n '/^\r*$/,$p' <&4 | tail -n +2)
        exec 4<&-
    fi
    case "$reply" in
    *'"ok":true'*) ;;
    *) fail "the sandbox refused /control/$1: $reply" ;;
    esac
}

show() { # FILE TEXT: prints the lines of FILE that contain TEXT, indented, as they come
    # $! is tail's pid; when tail goes, the filter behind it sees the end of its input and ends.
    tail -n +1 --pid=$$ -f "$1" 2>/dev/null > >(grep --line-buffered -F -- "$2" | sed -u 's/^/    /') &
    TAIL_PIDS="$TAIL_PIDS $!"
}

printf '%sd627 demo%s: build %s, services on 127.0.0.1:%s, push server on 127.0.0.1:%s\n' \
    "$BOLD" "$PLAIN" "$BUILD" "$HTTP_PORT" "$PUSH_PORT"

step "Starting the sandbox: the remote services, played on 127.0.0.1"
"$BIN/d627-sandbox" --http-port "$HTTP_PORT" --push-port "$PUSH_PORT" \
    --cookie "PHPSESSID=demo-php-2; path=/" </dev/null >"$SANDBOX_LOG" 2>&1 &
SANDBOX_PID=$!
show "$SANDBOX_LOG" "] sandbox: "
for _ in $(seq 50); do
    grep -q "ready:" "$SANDBOX_LOG" && break
    kill -0 "$SANDBOX_PID" 2>/dev/null || fail "the sandbox did not start (is port $HTTP_PORT or $PUSH_PORT taken?)"
    sleep 0.1
done
grep -q "ready:" "$SANDBOX_LOG" || fail "the sandbox did not get ready"

step "Log in: the main application starts the daemon and hands it the user's session"
note "d627-mainapp --user-id 10001 --cookie 'USERSESSIONID=demo-session;PHPSESSID=demo-php;' ..."
mkfifo "$WORK/mainapp.in"
"$BIN/d627-mainapp" --daemon "$BIN/d627" --user-id 10001 \
    --cookie "USERSESSIONID=demo-session;PHPSESSID=demo-php;" --setting 0 \
    --user-agent "d627-demo/1.0" --loglevel 1 --lockfile "$TMPDIR/mainapp.lock" \
    <"$WORK/mainapp.in" >"$MAINAPP_LOG" 2>&1 &
MAINAPP_PID=$!
EXPECT_MAINAPP=1
exec 3>"$WORK/mainapp.in" # keeps the main application's stdin open; "exit" can be sent on it
# The daemon inherits the main application's output; only the main application's lines are shown.
show "$MAINAPP_LOG" "] mainapp: "
wait_count "$MAINAPP_LOG" "connected to the daemon" 1 10

step "Connect: the daemon asks for the push server, logs in, queries its messages, starts heartbeats"
wait_count "$SANDBOX_LOG" "HOOS login" 1 20
wait_count "$SANDBOX_LOG" "IOOS request#0" 1 10
wait_count "$SANDBOX_LOG" "answer seq=1" 1 10
sleep 2
note "connected; the daemon now idles on the push connection"

step "Avatar change: queued for the daemon's next login; the sandbox drops the connection"
note "the daemon checks the login status (still valid), reconnects, and its first query brings the avatar"
ctl "avatar?url=http%3A%2F%2F127.0.0.1%2Favatars%2F10001-new.png"
wait_next "$MAINAPP_LOG" '"user_face"' 25
note "the main application got the new avatar (and the status answer renewed the PHPSESSID"
note "cookie, which the new login already carried)"

step "Membership change: level 5 until 2030-03-17, delivered the same way"
ctl "vip?level=5&expire=1900000000"
wait_next "$MAINAPP_LOG" '"vip_level":5' 25
note "the main application got the new membership level"

step "A push notice: the daemon answers it with a query, then asks for a user-information refresh"
sleep 2
ctl "notice?id=42"
wait_next "$MAINAPP_LOG" '"vip_level":100' 15
note "level 100 / expiry 100 is the daemon's marker for 'refresh the user information'"

step "A dropped connection: the daemon checks the login status and reconnects by itself"
logins=$(count "$SANDBOX_LOG" "HOOS login")
ctl "drop"
wait_count "$SANDBOX_LOG" "HOOS login" $((logins + 1)) 25
wait_next "$SANDBOX_LOG" "IOOS request#0" 10
note "reconnected and logged in again"

step "Logged out elsewhere: the status service now says so, and the push connection drops"
sleep 2
EXPECT_MAINAPP=0 # it ends when the daemon does
ctl "logout?message=signed%20in%20on%20another%20device"
wait_next "$MAINAPP_LOG" '"logout"' 25
note "the main application was told; the daemon exits by itself"
deadline=$(($(date +%s) + 10))
while kill -0 "$MAINAPP_PID" 2>/dev/null; do
    [ "$(date +%s)" -ge "$deadline" ] && { echo exit >&3; break; }
    sleep 0.1
done
dpid=$(daemon_pid)
for _ in $(seq 50); do
    if [ -z "$dpid" ] || ! kill -0 "$dpid" 2>/dev/null; then
        break
    fi
    sleep 0.1
done
if [ -n "$dpid" ] && kill -0 "$dpid" 2>/dev/null; then
    fail "the daemon (pid $dpid) is still running after the logout"
fi
note "daemon gone"

step "What the daemon's log tells support (d627-logview)"
if [ -x "$BIN/d627-logview" ]; then
    # DEMO_TIMELINE=FILE.svg (or .png) also draws the story's timeline.
    picture=()
    case "${DEMO_TIMELINE:-}" in
    *.png) picture=(--png "$DEMO_TIMELINE") ;;
    ?*) picture=(--svg "$DEMO_TIMELINE") ;;
    esac
    "$BIN/d627-logview" "${picture[@]}" "$HOME"/Documents/627log/support/*_627.log | sed 's/^/    /'
else
    note "build the target d627-logview to see a summary of the daemon's log here"
fi

step "Done in $(($(date +%s) - START)) s; cleaning up"
exit 0
