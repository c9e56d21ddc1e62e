# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034,SC2048,SC2086  # MAINAPP is for the callers; DAEMON_LOG is a pattern
# Shared by the shell tests (sourced): a private TMPDIR and HOME, the sandbox and d627-mainapp fed
# through fifos (fd 4 and fd 3), and waiting for lines in their output.
set -u
WORK=$(mktemp -d "${TMPDIR:-/tmp}/d627-sh.XXXXXX") && mkdir -p "$WORK/tmp" "$WORK/home" || exit 1
export TMPDIR=$WORK/tmp HOME=$WORK/home
DAEMON_LOG="$HOME/Documents/627log/support/*_627.log"
PIDS=""
trap 'exec 3>&- 4>&-; kill $PIDS 2>/dev/null; wait 2>/dev/null; rm -rf "$WORK"' EXIT
fail() { echo "FAIL: $*"; tail -n 30 "$WORK"/*.log "$TMPDIR"/*.log $DAEMON_LOG 2>/dev/null; exit 1; }
# wait_for TEXT N FILE...: waits up to 120 s until TEXT has appeared N times in the files, whose
# names may be patterns (expanded at each look).
wait_for() {
    for _ in $(seq 1200); do
        if [ "$(cat ${*:3} 2>/dev/null | grep -cF -- "$1")" -ge "$2" ]; then return 0; fi
        sleep 0.1
    done
    fail "'$1' not seen $2 time(s) in ${*:3}"
}
# start NAME FD COMMAND...: runs COMMAND with its stdin on fd FD and its output in NAME.log.
start() {
    mkfifo "$WORK/$1.in"
    "${@:3}" <"$WORK/$1.in" >"$WORK/$1.log" 2>&1 &
    LAST=$! PIDS="$PIDS $!"
    eval "exec $2>\"\$WORK/\$1.in\""
}
start_sandbox() { start sandbox 4 "$1/d627-sandbox" && wait_for "ready:" 1 "$WORK/sandbox.log"; }
start_mainapp() {
    start mainapp 3 "$1/d627-mainapp" --tmpdir "$TMPDIR" --lockfile "$TMPDIR/mainapp.lock" "${@:2}"
    MAINAPP=$LAST
    wait_for "connected to the daemon" 1 "$WORK/mainapp.log"
}
