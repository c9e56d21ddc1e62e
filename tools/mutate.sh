#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Mutation check: plants each fault of tools/mutants.txt in a scratch copy of the tree, builds it
# incrementally and runs the test suite against it. A fault is caught when a test fails (or hangs
# past its time limit); it survives when the whole suite passes.
#
#   tools/mutate.sh [-j N] [-l FIRST-LAST] [--tests REGEX] [--rev REV] [--scratch DIR] [--keep]
#   tools/mutate.sh --check [--list FILE]
#
#   -j N           plant N faults at a time, each in its own scratch copy (default 1)
#   -l A-B         only the faults on lines A to B of the list (also "-l 7" for one line)
#   --tests REGEX  run only the tests whose name matches REGEX
#   --rev REV      test the tree of a commit instead of the working tree
#   --list FILE    another list of faults (default tools/mutants.txt)
#   --scratch DIR  where the copies and builds go (default /tmp/d627-mutate); reused when kept
#   --check        plant nothing: print how many faults the list holds and fail on any whose
#                  original text does not occur exactly once in its file
#
# Lines of the list: file|exact original text|replacement|short description. The original text
# must occur exactly once in the file. Lines starting with # are comments; a fault that no test
# can see stays in the list with a "#" and the reason.
#
# Tests run quickest first (by the times of an unmutated run) and stop at the first failure,
# inside a private network namespace so that fixed ports never clash with anything else.
set -u
here=$(cd "$(dirname "$0")/.." && pwd)
jobs=1 range="" tests="" rev="" list="$here/tools/mutants.txt" scratch=/tmp/d627-mutate check=0
while [ $# -gt 0 ]; do
    case "$1" in
    --check) check=1; shift ;;
    -j) jobs=$2; shift 2 ;;
    -j*) jobs=${1#-j}; shift ;;
    -l) range=$2; shift 2 ;;
    --tests) tests=$2; shift 2 ;;
    --rev) rev=$2; shift 2 ;;
    --list) list=$(cd "$(dirname "$2")" && pwd)/$(basename "$2"); shift 2 ;;
    --scratch) scratch=$2; shift 2 ;;
    -h | --help) sed -n '2,23p' "$0"; exit 0 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
    esac
done

if [ $check = 1 ]; then
    LIST=$list ROOT=$here python3 - <<'CHECK'
import os, sys
faults = missing = 0
for no, line in enumerate(open(os.environ["LIST"], encoding="utf-8"), 1):
    line = line.rstrip("\n")
    if not line or line.startswith("#"):
        continue
    faults += 1
    path, original = line.split("|")[:2]
    try:
        found = open(os.path.join(os.environ["ROOT"], path), encoding="utf-8").read().count(original)
    except OSError:
        found = 0
    if found != 1:
        missing += 1
        print(f"line {no}: {path}: the original text occurs {found} times")
print(f"{faults} faults, {faults - missing} match the code")
sys.exit(1 if missing else 0)
CHECK
    exit $?
fi

if [ "${D627_MUTATE_NS:-}" != 1 ]; then
    export D627_MUTATE_NS=1
    exec unshare -n "$0" -j "$jobs" ${range:+-l "$range"} ${tests:+--tests "$tests"} \
        ${rev:+--rev "$rev"} --list "$list" --scratch "$scratch"
fi
ip link set lo up

export CCACHE_BASEDIR=$scratch CCACHE_NOHASHDIR=1
mkdir -p "$scratch"
log=$scratch/log
mkdir -p "$log"

# Copies the tree (tracked and new files of the working tree, or a commit) into $1.
copy_tree() {
    local dest=$1
    mkdir -p "$dest"
    if [ -n "$rev" ]; then
        git -C "$here" archive "$rev" | tar -x -C "$dest"
    else
        (cd "$here" && git ls-files -co --exclude-standard -z | grep -zv '^build' |
            xargs -0 tar -c 2>/dev/null) | tar -x -C "$dest"
    fi
}

# Writes one runner script per test (its directory, environment and command) into $1/runners.
make_runners() {
    local build=$1
    mkdir -p "$build/runners"
    (cd "$build" && ctest --show-only=json-v1) | python3 -c '
import json, shlex, sys, os
out = sys.argv[1]
for t in json.load(sys.stdin)["tests"]:
    env, wd = [], None
    for p in t.get("properties", []):
        if p["name"] == "ENVIRONMENT":
            env = p["value"]
        if p["name"] == "WORKING_DIRECTORY":
            wd = p["value"]
    with open(os.path.join(out, t["name"]), "w") as f:
        if wd:
            f.write("cd %s || exit 99\n" % shlex.quote(wd))
        f.write("exec env %s %s\n" % (" ".join(shlex.quote(e) for e in env),
                                      " ".join(shlex.quote(c) for c in t["command"])))
' "$build/runners"
}

# The build target that a test needs: the test itself, or what a test of another name runs.
target_of() {
    case "$1" in
    d627_not_linked_to_ec627) echo d627 ;;
    tst_cipher_nolib) echo tst_cipher_fake ;;
    tst_slow) echo tst_endtoend ;;
    d627_*) echo all ;; # the shell tests use the daemon, the tools and the manual pages
    *) echo "$1" ;;
    esac
}

# Prepares worker $1: a copy, a configured build, a full build.
prepare() {
    local w=$scratch/w$1
    if [ ! -f "$w/tree/build/build.ninja" ]; then
        rm -rf "$w"
        copy_tree "$w/tree"
        cmake -S "$w/tree" -B "$w/tree/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache \
            -DD627_BUILD_BENCH=OFF -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold \
            -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=gold >"$log/w$1-cmake.txt" 2>&1 || return 1
    else
        # A kept copy: bring the sources up to date (file times change only where content does).
        local fresh=$scratch/fresh$1
        rm -rf "$fresh"
        copy_tree "$fresh"
        (cd "$fresh" && find . -type f) | while read -r f; do
            if ! cmp -s "$fresh/$f" "$w/tree/$f"; then
                mkdir -p "$(dirname "$w/tree/$f")"
                cp "$fresh/$f" "$w/tree/$f"
                echo "$f"
            fi
        done >"$scratch/changed$1"
        rm -rf "$fresh"
        [ -s "$scratch/changed$1" ] && rm -f "$scratch/times"
    fi
    cmake --build "$w/tree/build" -j2 >"$log/w$1-build.txt" 2>&1 || return 1
    make_runners "$w/tree/build"
}

# Runs test $2 of worker $1 within its limit; returns its exit status (124/137 on a hang).
run_test() {
    local b=$scratch/w$1/tree/build name=$2 limit=$3
    timeout -k 5 "$limit" bash "$b/runners/$name" >"$log/w$1-test.txt" 2>&1
}

# Baseline: every selected test passes unmutated; their times order the runs.
echo "preparing $jobs scratch cop$([ "$jobs" = 1 ] && echo y || echo ies) in $scratch ..."
for w in $(seq 1 "$jobs"); do
    prepare "$w" || { echo "worker $w: configure or build failed, see $log/w$w-*.txt"; exit 1; }
done
b1=$scratch/w1/tree/build
names=$(cd "$b1/runners" && ls | grep -E "${tests:-.}")
# The times of an earlier run of the same sources and tests are reused.
[ -f "$scratch/times" ] && [ "$(awk '{print $2}' "$scratch/times" | sort)" = "$(echo "$names" | sort)" ] &&
    names=""
[ -n "$names" ] && : >"$scratch/times"
for n in $names; do
    start=$(date +%s%N)
    if ! run_test 1 "$n" 600; then
        echo "baseline: $n fails without any fault; fix it first (log: $log/w1-test.txt)"
        cat "$log/w1-test.txt" | tail -20
        exit 1
    fi
    printf '%s %s\n' "$(awk -v a="$start" -v b="$(date +%s%N)" 'BEGIN {printf "%.1f", (b - a) / 1e9}')" "$n" >>"$scratch/times"
done
order=$(sort -n "$scratch/times" | awk '{print $2}')
echo "baseline passes (or is reused); tests, quickest first:"
sort -n "$scratch/times" | awk '{printf "  %6.1fs %s\n", $1, $2}'

# The tests that look at a folder's code most closely run first for a fault in it.
first_tests() {
    case "$1" in
    src/core/*) echo "tst_datacenter tst_log" ;;
    src/cipher/*) echo "tst_stringencrypt tst_cipher_fake tst_cipher_nolib" ;;
    src/web/*) echo "tst_requesthttps" ;;
    src/push/*) echo "tst_stringencrypt tst_cipher_fake tst_msgclient" ;;
    src/threads/*) echo "tst_threadmanager tst_mainappdetect tst_networkdetect tst_clientthread" ;;
    src/link/*) echo "tst_adapter tst_daemon" ;;
    src/*) echo "tst_daemon" ;;
    esac
}

# Plants fault $2 (a line of the list, numbered $3) in worker $1 and reports the verdict.
mutate_one() {
    local w=$1 line=$2 no=$3
    local tree=$scratch/w$w/tree
    local file orig repl desc
    IFS='|' read -r file orig repl desc <<<"$line"
    local path=$tree/$file
    local verdict detail=""
    if [ ! -f "$path" ]; then
        verdict=missing
    else
        local n
        n=$(ORIG=$orig python3 -c 'import os,sys; print(open(sys.argv[1]).read().count(os.environ["ORIG"]))' "$path")
        if [ "$n" != 1 ]; then
            verdict=missing detail="text found $n times"
        else
            cp -p "$path" "$path.orig"
            ORIG=$orig REPL=$repl python3 -c '
import os, sys
p = sys.argv[1]
s = open(p).read().replace(os.environ["ORIG"], os.environ["REPL"], 1)
open(p, "w").write(s)' "$path"
            verdict=survived
            if ! cmake --build "$tree/build" --target d627 >"$log/w$w-mbuild.txt" 2>&1; then
                verdict=nobuild
            else
                local t lim first
                first=$(for t in $(first_tests "$file"); do echo "$order" | grep -x "$t"; done)
                for t in $first $(echo "$order" | grep -vxF "$first"); do
                    if ! cmake --build "$tree/build" --target "$(target_of "$t")" \
                        >>"$log/w$w-mbuild.txt" 2>&1; then
                        verdict=nobuild
                        break
                    fi
                    lim=$(awk -v n="$t" '$2 == n {l = 3 * $1 + 30; print int(l)}' "$scratch/times")
                    run_test "$w" "$t" "$lim" 2>/dev/null
                    local rc=$?
                    if [ $rc -ne 0 ]; then
                        verdict=caught
                        detail="by $t"
                        case $rc in
                        124 | 137) detail="$detail (time limit)" ;;
                        1[3-9][0-9]) detail="$detail (crashed)" ;;
                        esac
                        break
                    fi
                done
            fi
            # Restore with the original time stamp so that the next build recompiles it back.
            mv "$path.orig" "$path"
            touch "$path"
        fi
    fi
    printf '%-8s %3d  %s: %s %s\n' "$verdict" "$no" "$file" "$desc" "$detail"
}

# Selected lines of the list, numbered.
selected() {
    local a=1 z=999999
    if [ -n "$range" ]; then
        a=${range%-*}
        z=${range#*-}
    fi
    awk -v a="$a" -v z="$z" 'NR >= a && NR <= z && $0 !~ /^[[:space:]]*(#|$)/ {print NR "\t" $0}' "$list"
}

results=$scratch/results
: >"$results"
worker_loop() {
    local w=$1 k=0
    selected | while IFS=$'\t' read -r no line; do
        k=$((k + 1))
        [ $(((k - 1) % jobs + 1)) = "$w" ] || continue
        mutate_one "$w" "$line" "$no" | tee -a "$results"
    done
}
for w in $(seq 1 "$jobs"); do
    worker_loop "$w" &
done
wait
# Leave each copy's build matching its sources again.
for w in $(seq 1 "$jobs"); do
    cmake --build "$scratch/w$w/tree/build" >/dev/null 2>&1
done

caught=$(grep -c '^caught' "$results")
survived=$(grep -c '^survived' "$results")
other=$(grep -cv '^caught\|^survived' "$results")
total=$((caught + survived))
echo "----"
grep '^survived' "$results"
[ "$other" -gt 0 ] && grep -v '^caught\|^survived' "$results"
if [ "$total" -gt 0 ]; then
    echo "caught $caught of $total faults ($((100 * caught / total))%), survived $survived," \
        "not planted $other"
fi
