#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Feeds every example of docs/protocol.md (fenced blocks marked "json example") to the real daemon
# and checks the answer that the document promises. Usage: protocol.sh BIN_DIR protocol.md
BIN=$1 DOC=$2
# shellcheck source=tests/install/lib.sh
. "$(dirname "$0")/lib.sh"
declare -A EX
while read -r ex; do
    case "$ex" in
    *'"exit":true'*) k=exit_true ;; *'"exit":false'*) k=exit_false ;; *'"user_id"'*) k=login ;;
    *'"user_face"'*) k=face ;; *'"vip_level":100}') k=marker ;; *'"vip_level"'*) k=vip ;;
    *'"net_error"'*) k=net ;; *'"logout"'*) k=logout ;; *) fail "unchecked example $ex" ;;
    esac
    EX[$k]=$ex
done < <(awk '/^```json example/ { on = 1; next } /^```/ { on = 0 } on' "$DOC")
[ ${#EX[@]} = 8 ] || fail "expected 8 kinds of example, found: ${!EX[*]}"
for k in user_id cookie setting user_agent pid lockfile loglevel; do [[ ${EX[login]} == *"\"$k\":"* ]] || fail "login lacks $k"; done
[[ ${EX[net]} =~ ^\{\"net_error\":(true|false)\}$ ]] || fail "bad net_error example"
value() { sed -E "s/.*\"$1\":\"?([^\",}]*).*/\1/" <<<"$2"; }
start_daemon() { "$BIN/d627" >>"$WORK/daemon.log" 2>&1 & DPID=$! && until [ -S "$TMPDIR/90f5b5e6317542f5aa4beb51d0b9abca2631d3ee" ]; do sleep 0.1; done; }
expect() { wait_for "received $1" 1 "$WORK/mainapp.log"; }
running() { wait_for "MsgClient::onRun current process is 4!" "$1" "$DAEMON_LOG"; }
ends_with_0() { wait "$DPID" || fail "the daemon ended with $?"; }  # ctest's timeout bounds it

start_sandbox "$BIN"
start_daemon
start_mainapp "$BIN" --no-login --stay
echo "send ${EX[login]}" >&3 && running 1
echo "avatar url=$(value user_face "${EX[face]}")" >&4 && expect "${EX[face]}" && running 2
echo "vip level=$(value vip_level "${EX[vip]}") expire=$(value expire_time "${EX[vip]}")" >&4
expect "${EX[vip]}" && running 3
echo notice >&4 && expect "${EX[marker]}"
echo "send ${EX[exit_false]}" >&3
echo "logout $(value logout "${EX[logout]}")" >&4 && expect "${EX[logout]}" && ends_with_0
# shellcheck disable=SC2086  # a pattern
grep -qF "read from 627 data is ${EX[exit_false]}" $DAEMON_LOG || fail "exit:false not read"

start_daemon
echo connect >&3 && wait_for "connected to the daemon" 2 "$WORK/mainapp.log"
echo "send ${EX[exit_true]}" >&3 && ends_with_0
