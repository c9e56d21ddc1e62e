#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2016  # backquotes in patterns are Markdown's
# Fails when a document names a message key, setting bit or log level that the sources lack (read
# from them on each run, named constants looked up), or protocol.md misses one; and when a fact of
# the tree or the build (programs installed, manual pages, CI stages, lintian overrides, planted
# faults, test share, folders, suites, suppression files, waits) is not what the documents say.
# Usage: docfacts.sh ROOT
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

# Facts of the tree and the build, each read afresh, and the documents that must say them.
# says DOC PATTERN FACT: the document holds the (Perl) pattern, or the test fails with the fact.
says() { [ -f "$1" ] && grep -qP -- "$2" "$1" || fail "${1#"$ROOT"/} does not say: $3"; }
D=$ROOT/docs R=$ROOT/README.md N=$ROOT/NEWS.md
NUMBER=(zero one two three four five six seven eight nine)
PROGRAMS=$(grep -A1 '^install(TARGETS' "$ROOT/programs/CMakeLists.txt" | grep -oP 'd627-\w+' | sort -u)
PAGES=$(cd "$D" && ls -- *.[1-8])
STAGES=$(sed -n 's/.*stages=(\([a-z ]*\)).*/\1/p' "$ROOT/.ci/run")
OVERRIDES=$(cat "$ROOT"/debian/*.lintian-overrides | grep -cv '^\s*\(#\|$\)')
SPELT=$(grep -ohP 'spelling-error-in-binary .*/\K[\w-]+(?=\])' "$ROOT"/debian/*.lintian-overrides)
FAULTS=$(bash "$ROOT/tools/mutate.sh" --check | grep -oP '^\d+(?= faults)') ||
    fail "tools/mutants.txt: a fault no longer applies to the code"
SHARE=$(find "$ROOT" \( -name 'build*' -o -name 'obj-*' -o -name .git -o -name debian \) -prune -o \
    -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.sh' -o -name '*.py' \) -print0 |
    xargs -0 awk -v t="^$ROOT/(tests|fuzz)/" 'NF { all++; if (FILENAME ~ t) n++ } END { printf "%.3f", n / all }')
SUITES=$(grep -rhoP '^d627_add_qtest\(\K\w+|add_test\(NAME \K\w+' "$ROOT/tests" "$ROOT/fuzz" | sort -u)
for p in $PROGRAMS; do
    says "$D/running.md" "\`<prefix>/bin/$p\`" "$p is installed"
    says "$D/package.md" "\`$p\`" "$p ships in d627-devtools"
    says "$N" "\`$p\`" "$p ships in d627-devtools"
    says "$ROOT/debian/d627-devtools.install" "^usr/bin/$p$" "$p ships in d627-devtools"
    says "$R" "^\| \`programs/\` \|.*\`$p\`" "programs/$p is a shipped program's folder"
    [ -d "$ROOT/programs/$p" ] || fail "programs/$p does not exist"
done
for m in $PAGES; do
    says "$D/running.md" "$m" "the manual page $m is installed"
    says "$R" "docs/$m" "the manual page $m"
    says "$N" "${m%.*}\(${m##*.}\)" "the manual page $m ships"
done
for s in $STAGES; do says "$D/testing.md" "^\| $s \|" "CI stage $s"; done
n=$(wc -w <<<"$STAGES")
says "$R" "the first of the ${NUMBER[$n]} stages" "CI has $n stages"
says "$D/package.md" "nothing but ${NUMBER[$OVERRIDES]} overridden tags" "$OVERRIDES lintian overrides"
for b in $SPELT; do says "$D/package.md" "\`$b\` \(which (writes|reads) it\)" "$b keeps the misspelt log text"; done
says "$D/testing.md" "The list holds $FAULTS faults" "$FAULTS planted faults in tools/mutants.txt"
says "$D/testing.md" "today they are $SHARE\b" "test code is $SHARE of all code"
for f in $(ls -d "$ROOT"/*/ | xargs -n1 basename); do
    case $f in build* | obj-* | packages | release) continue ;; esac
    says "$R" "^\| [^|]*\`$f/\`" "the folder $f/ in the README's folder table"
done
for suite in $(cat "$ROOT"/*.md "$D"/*.md | grep -oP '\btst_\w+' | sort -u); do
    grep -qx "$suite" <<<"$SUITES" || fail "a document names the suite $suite, which does not exist"
done
for f in $(find "$ROOT" \( -name 'build*' -o -name 'obj-*' -o -name .git \) -prune -o -name '*.supp' -print); do
    [[ $f == "$ROOT"/tools/sanitizers/* ]] || fail "${f#"$ROOT"/} is not in tools/sanitizers"
done
# No fixed waits in the tests: they wait for conditions.
grep -rnE --exclude=docfacts.sh 'qSleep|QThread::(m|u)?sleep|\busleep\(' "$ROOT/tests" && fail "the tests above wait a fixed time"
exit $status
