#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every libFuzzer target of a fuzz build for a bounded time, two at a time.
#   tools/fuzz.sh <build-dir> [seconds-per-target]     (default 60 s)
# The build comes from: CC=clang CXX=clang++ cmake -S . -B <build-dir> -G Ninja -DD627_BUILD_FUZZ=ON
# Fails (exit 1) on a crash, a sanitizer report, an input running longer than the time-out, or
# memory growing past the limit. Every input that did so is copied into fuzz/corpus/<target>/,
# where fuzz_replay picks it up in every later test run. Prints exec/s and coverage per target.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: tools/fuzz.sh <build-dir> [seconds-per-target]}" && pwd) || exit 2
seconds=${2:-60}
rss_mb=${D627_FUZZ_RSS_MB:-2048}
input_timeout=${D627_FUZZ_TIMEOUT:-10}
max_len=${D627_FUZZ_MAX_LEN:-8192}

# The frame reader talks over loopback: give the run a network namespace of its own when possible.
if [[ -z ${D627_FUZZ_NETNS:-} ]] && unshare -n true 2>/dev/null; then
    exec env D627_FUZZ_NETNS=1 unshare -n bash -c 'ip link set lo up && exec "$@"' fuzz "$0" "$@"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/d627-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
export LD_LIBRARY_PATH=$build/lib HOME=$work/home
export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# Full allocation stacks, so that the one suppression can name the Qt function (see lsan.supp).
export LSAN_OPTIONS=suppressions=$root/tools/sanitizers/fuzz-lsan.supp:print_suppressions=0:fast_unwind_on_malloc=0:malloc_context_size=255

mapfile -t targets < <(cd "$root/fuzz/corpus" && ls -d -- */ | tr -d /)
for t in "${targets[@]}"; do
    [[ -x $build/bin/fuzz_$t ]] || { echo "missing $build/bin/fuzz_$t (built with -DD627_BUILD_FUZZ=ON?)"; exit 2; }
done

run_one() {
    local t=$1 dir=$work/$1
    mkdir -p "$dir/corpus" "$dir/found"
    timeout $((seconds * 2 + 120)) "$build/bin/fuzz_$t" "$dir/corpus" "$root/fuzz/corpus/$t" \
        -max_total_time="$seconds" -rss_limit_mb="$rss_mb" -timeout="$input_timeout" \
        -max_len="$max_len" -dict="$root/fuzz/json.dict" -artifact_prefix="$dir/found/" \
        -print_final_stats=1 >"$dir/log" 2>&1
    echo $? >"$dir/rc"
}

echo "fuzzing ${#targets[@]} targets for ${seconds} s each"
for t in "${targets[@]}"; do
    while (($(jobs -rp | wc -l) >= 2)); do wait -n; done
    run_one "$t" &
done
wait

failed=0
printf '%-16s %10s %7s %7s\n' target exec/s cov corpus
for t in "${targets[@]}"; do
    dir=$work/$t
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE ' "$dir/log" | tail -1)
    cov=$(sed -nE 's/.* cov: ([0-9]+) .*/\1/p' <<<"$done_line")
    execs=$(sed -nE 's/.* exec\/s: ([0-9]+) .*/\1/p' <<<"$done_line")
    files=$(find "$root/fuzz/corpus/$t" -type f | wc -l)
    printf '%-16s %10s %7s %7s\n' "$t" "${execs:--}" "${cov:--}" "$files"
    found=$(find "$dir/found" -type f | wc -l)
    if [[ $(cat "$dir/rc") != 0 || $found != 0 || -z $done_line ]] ||
        grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$dir/log"; then
        failed=1
        echo "== $t FAILED (exit $(cat "$dir/rc")); end of its log:"
        grep -vE '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse|INITED)' "$dir/log" | tail -40
        for f in "$dir"/found/*; do
            [[ -f $f ]] || continue
            cp "$f" "$root/fuzz/corpus/$t/"
            echo "   input kept as fuzz/corpus/$t/$(basename "$f")"
        done
    fi
done
exit $failed
