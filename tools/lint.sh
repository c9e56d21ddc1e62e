#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Static checks on the project's own code (src, ec627, programs, tools, tests, bench, fuzz), strict: exits
# non-zero on any clang-format difference, any cppcheck finding or any clang-tidy finding.
#   bash tools/lint.sh [build-dir]
# clang-tidy needs a compile database with the generated headers; the build directory (default
# build-lint) is configured with clang and only its code generators are run, nothing is compiled.
# An accepted exception is written in the code: // NOLINT(check): reason, or
# // cppcheck-suppress id  with the reason beside it.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-lint}
cd "$root"
dirs=(src ec627 programs tools tests bench fuzz)
mapfile -t sources < <(git ls-files -- "${dirs[@]/%//*.cpp}" "${dirs[@]/%//*.h}")
# The layer probes (tests/layers) are built to fail for some headers: not clang-tidy's to build.
mapfile -t units < <(git ls-files -- "${dirs[@]/%//*.cpp}" | grep -v '^tests/layers/')
failed=()

echo "== clang-format (${#sources[@]} files)"
if ! clang-format --dry-run --Werror "${sources[@]}"; then
    failed+=(clang-format)
fi

echo "== layers: no relative include between the daemon's folders"
if ! bash tests/layers/probe.sh --relative src; then
    failed+=(layers)
fi

echo "== cppcheck"
existing=()
for d in "${dirs[@]}"; do [ -d "$d" ] && existing+=("$d"); done
if ! cppcheck --enable=warning,style,performance --std=c++17 --quiet --library=tools/qtest.cfg --library=qt \
    --inline-suppr --error-exitcode=1 -D__GNUC__ \
    --suppress=missingIncludeSystem --suppress=useStlAlgorithm -I src "${existing[@]}"; then
    failed+=(cppcheck)
fi

echo "== clang-tidy (${#units[@]} files)"
if [ ! -f "$build/compile_commands.json" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DD627_BUILD_FUZZ=ON >/dev/null || exit 1
fi
mapfile -t generators < <(ninja -C "$build" -t targets all | sed -n 's/^\([^:]*_autogen\): phony$/\1/p')
ninja -C "$build" "${generators[@]}" >/dev/null || exit 1
if ! printf '%s\n' "${units[@]}" |
    xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet --warnings-as-errors='*' 2>/dev/null; then
    failed+=(clang-tidy)
fi

if [ ${#failed[@]} -gt 0 ]; then
    echo "== findings from: ${failed[*]}"
    exit 1
fi
echo "== clean"
