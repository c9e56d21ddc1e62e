#!/usr/bin/env bash
# Installs the build into a temporary DESTDIR and plays a short story with the installed files
# only: the installed d627-mainapp starts the installed daemon against the installed sandbox.
# Usage: play.sh BUILD_DIR SOURCE_DIR
BUILD=$1 SOURCE=$2
. "$(dirname "$0")/lib.sh"
ROOT=$WORK/root
DESTDIR=$ROOT cmake --install "$BUILD" --prefix /usr >"$WORK/install.log" || fail "cmake --install"
for f in usr/libexec/d627/d627 usr/bin/d627-sandbox usr/bin/d627-mainapp usr/share/man/man8/d627.8 \
    usr/share/man/man1/d627-sandbox.1 usr/share/man/man1/d627-mainapp.1 usr/share/doc/d627/protocol.md; do
    [ -e "$ROOT/$f" ] || fail "not installed: $f"
done
[ -e "$ROOT/usr/bin/d627" ] && fail "the daemon must not be in bin"
while read -r f; do
    readelf -d "$f" | grep -E 'RPATH|RUNPATH' && fail "$f carries a run path"
    strings -a "$f" | grep -F -e "$BUILD" -e "$SOURCE" | head -3 | grep . && fail "$f names a build path"
done < <(find "$ROOT" -type f -exec sh -c 'head -c4 "$1" | grep -q ELF' _ {} \; -print)

# The stand-in cipher library comes from the private folder when installed there, else from a
# folder of its own, as the vendor's library would.
LIBARGS=()
if [ -z "$(find "$ROOT" -name 'libec627.so*')" ]; then
    mkdir "$WORK/vendor" && cp "$BUILD/lib/libec627.so" "$WORK/vendor/"
    LIBARGS=(--library-path "$WORK/vendor")
fi
BIN=$ROOT/usr/bin
env -u LD_LIBRARY_PATH ldd "$BIN/d627-sandbox" "$BIN/d627-mainapp" | grep -E 'not found|ec627' &&
    fail "the installed tools need a library from outside the system's folders"
unset LD_LIBRARY_PATH
start_sandbox "$BIN"
start_mainapp "$BIN" --loglevel 1 "${LIBARGS[@]}"
wait_for "MsgClient::onRun current process is 4!" 1 "$DAEMON_LOG"
echo "avatar url=http://127.0.0.1/avatars/10001-new.png" >&4
wait_for 'received {"user_face":"http://127.0.0.1/avatars/10001-new.png"}' 1 "$WORK/mainapp.log"
DPID=$(head -n 1 "$TMPDIR"/d627_*-lockfile)
grep -q "$ROOT/usr/libexec/d627/d627" "/proc/$DPID/cmdline" || fail "not the installed daemon"
echo exit >&3
wait "$MAINAPP" || fail "d627-mainapp ended with $?"
for _ in $(seq 100); do kill -0 "$DPID" 2>/dev/null || exit 0; sleep 0.1; done
fail "the daemon still runs after exit"
