#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2016  # backquotes in patterns are Markdown's
# Fails when a document names a message key, setting bit or log level that the sources lack (read
# from them on each run, named constants looked up), or protocol.md misses one. Usage: docfacts.sh ROOT
ROOT=$1 SRC=$1/src status=0
fail() { echo "FAIL: $*" && status=1; }
# The literal that a token stands for: itself, or the value of the constant or enumerator so named.
literal() {
    case $1 in [0-9-]* | \"*) echo "$1" && return ;; esac
    grep -rhoP "(\bconst(expr)?\b[^;=]*\b|^\s*|[{,]\s*)${1##*::}\s*(=|\{)\s*\K(\"[^\"]*\"|[-0-9a-fA-FxX<() ]+)" "$SRC" | head -n1
}
facts() { while read -r token; do literal "$token"; done | tr -d '"' | sed 's/ *$//' | sort -u; }
KEYS=$(grep -oP '\b(value|insert|contains)\(\s*\K("\w+"|[\w:]+)' "$SRC/link/adapter.cpp" | facts)
BITS=$(grep -rhoP '\bsetting\s*&\s*\K[\w:]+' "$SRC/core" | facts | while read -r b; do echo $((b)); done | sort -n)
LEVELS=$(grep -rhoP '\b(Msg|Infor\s+\w+)\(\s*\K-?[\w:]+' "$SRC" | facts | grep -xE -- '-?[0-9]+')
if [ -z "$KEYS" ] || [ -z "$BITS" ] || [ -z "$LEVELS" ]; then fail "facts not found in the sources"; fi

named() { local doc=$1 p && shift && for p in "$@"; do grep -oP -- "$p" "$doc"; done | sort -u; }
for doc in "$ROOT/README.md" "$ROOT/SECURITY.md" "$ROOT/docs/protocol.md" "$ROOT"/docs/*.[1-8]; do
    name=${doc#"$ROOT"/}
    for key in $(named "$doc" '"\K\w+(?="\s*:)' '`"\K\w+(?="`)' '^\| `\K\w+(?=` \| (string|integer|bool))'); do
        grep -qx -- "$key" <<<"$KEYS" || fail "$name names the message key $key"
    done
    for bit in $(named "$doc" '(?i)(?<![-\w])bits?( value)? \K\d+' \
        '(?i)(?<![-\w])bits?\b[^.|:\n]*:\K[^.|\n]*' | grep -oP '(^|[:,]) ?\K\d+'); do
        grep -qx -- "$bit" <<<"$BITS" || fail "$name names the setting bit $bit"
    done
    for level in $(named "$doc" '(?i)\bthresholds? \K-?\d+' '(?i)(?<!membership )\blevels?[- ]\K-?\d+' \
        'loglevel\W+\K-?\d+' '\b\d+(?= (progress|important|errors?|tracing)\b)'); do
        [ "$level" -lt 0 ] || grep -qx -- "$level" <<<"$LEVELS" || fail "$name names the log level $level"
    done
done
for fact in $KEYS; do grep -q "\`$fact\`" "$ROOT/docs/protocol.md" || fail "docs/protocol.md lacks the key $fact"; done
for fact in $BITS; do grep -qiP "\bbit( value)? $fact\b" "$ROOT/docs/protocol.md" || fail "docs/protocol.md lacks bit $fact"; done
exit $status
