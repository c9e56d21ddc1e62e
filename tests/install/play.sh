#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a temporary DESTDIR and plays a short story with the installed files
# only: the installed d627-mainapp starts the installed daemon against the installed sandbox.
# Usage: play.sh BUILD_DIR SOURCE_DIR
BUILD=$1 SOURCE=$2
# shellcheck source=tests/install/lib.sh
. "$(dirname "$0")/lib.sh"
ROOT=$WORK/root BIN=$WORK/root/usr/bin
DESTDIR=$ROOT cmake --install "$BUILD" --prefix /usr >"$WORK/install.log" || fail "cmake --install"
for f in libexec/d627/d627 bin/d627-sandbox bin/d627-mainapp share/man/man8/d627.8 \
    share/man/man1/d627-sandbox.1 share/man/man1/d627-mainapp.1 share/doc/d627/protocol.md; do
    [ -e "$ROOT/usr/$f" ] || fail "not installed: $f"
done
find "$ROOT" -type f -exec sh -c 'head -c4 "$1" | grep -q ELF' _ {} \; -print >"$WORK/elves"
while read -r f; do
    readelf -d "$f" | grep -E 'RPATH|RUNPATH' && fail "$f carries a run path"
    # Sanitizer builds keep source paths for their reports; only plain builds are shipped.
    [ -n "${ASAN_OPTIONS:-}${TSAN_OPTIONS:-}" ] && continue
    strings -a "$f" | grep -F -e "$BUILD" -e "$SOURCE" | head -3 | grep . && fail "$f names a build path"
done <"$WORK/elves"
env -u LD_LIBRARY_PATH ldd "$BIN/d627-sandbox" "$BIN/d627-mainapp" | grep -E 'not found|ec627' &&
    fail "the installed tools need a library from outside the system's folders"
# The stand-in cipher library: from its private folder when installed there, else from a folder
# of its own, as the vendor's library would be.
LIBARGS=()
if [ -z "$(find "$ROOT" -name 'libec627.so*')" ]; then
    mkdir "$WORK/vendor" && cp "$BUILD/lib/libec627.so" "$WORK/vendor/"
    LIBARGS=(--library-path "$WORK/vendor")
fi
unset LD_LIBRARY_PATH
start_sandbox "$BIN"
start_mainapp "$BIN" --loglevel 1 "${LIBARGS[@]}"
wait_for "MsgClient::onRun current process is 4!" 1 "$DAEMON_LOG"
echo "avatar url=http://127.0.0.1/avatars/10001-new.png" >&4 &&
    wait_for 'received {"user_face":"http://127.0.0.1/avatars/10001-new.png"}' 1 "$WORK/mainapp.log"
DPID=$(head -n 1 "$TMPDIR"/d627_*-lockfile)
grep -q "$ROOT/usr/libexec/d627/d627" "/proc/$DPID/cmdline" || fail "not the installed daemon"
echo exit >&3; wait "$MAINAPP" || fail "d627-mainapp ended with $?"
while kill -0 "$DPID" 2>/dev/null; do sleep 0.1; done # ctest's timeout bounds the wait
