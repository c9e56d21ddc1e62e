# Shared by the shell tests: a private TMPDIR and HOME, the sandbox and d627-mainapp fed through
# fifos (fd 4 and fd 3), and waiting for lines in their output. Sourced, not run.
set -u
WORK=$(mktemp -d "${TMPDIR:-/tmp}/d627-sh.XXXXXX") && mkdir -p "$WORK/tmp" "$WORK/home" || exit 1
export TMPDIR=$WORK/tmp HOME=$WORK/home
SOCKET=$TMPDIR/90f5b5e6317542f5aa4beb51d0b9abca2631d3ee
PIDS=""
trap 'exec 3>&- 4>&-; kill $PIDS 2>/dev/null; wait 2>/dev/null; rm -rf "$WORK"' EXIT
fail() {
    echo "FAIL: $*"
    tail -n 30 "$WORK"/*.log "$HOME"/Documents/627log/support/*.log 2>/dev/null
    exit 1
}
# shellcheck disable=SC2048,SC2086  # the file names may be patterns, expanded at each look
count() { cat $* 2>/dev/null | grep -cF -- "$TEXT"; }
# wait_for TEXT N FILE...: waits up to 60 s until TEXT has appeared N times in the files.
wait_for() {
    TEXT=$1
    local n=$2 i
    shift 2
    for i in $(seq 600); do
        [ "$(count "$@")" -ge "$n" ] && return 0
        sleep 0.1
    done
    fail "'$TEXT' not seen $n time(s) in $*"
}
# start_sandbox BINDIR: the stand-in services on the default ports, commands through fd 4.
start_sandbox() {
    mkfifo "$WORK/sandbox.in"
    "$1/d627-sandbox" <"$WORK/sandbox.in" >"$WORK/sandbox.log" 2>&1 &
    PIDS="$PIDS $!"
    exec 4>"$WORK/sandbox.in"
    wait_for "ready:" 1 "$WORK/sandbox.log"
}
# start_mainapp BINDIR ARGS...: d627-mainapp with its own lock file, commands through fd 3.
start_mainapp() {
    local bin=$1
    shift
    mkfifo "$WORK/mainapp.in"
    "$bin/d627-mainapp" --lockfile "$TMPDIR/mainapp.lock" "$@" <"$WORK/mainapp.in" \
        >"$WORK/mainapp.log" 2>&1 &
    MAINAPP=$!
    PIDS="$PIDS $MAINAPP"
    exec 3>"$WORK/mainapp.in"
    wait_for "connected to the daemon" 1 "$WORK/mainapp.log"
}
DAEMON_LOG="$HOME/Documents/627log/support/*_627.log"
