#!/usr/bin/env bash
# Static checks on the project's own code: clang-format (check only), cppcheck and clang-tidy.
# Needs a configured build directory for clang-tidy's compile database.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
cd "$root"
mapfile -t sources < <(git ls-files '*.cpp' '*.h')
echo "== clang-format"
clang-format --dry-run "${sources[@]}" 2>&1 | grep -c "warning:" | sed 's/^/lines to reformat: /'
echo "== cppcheck"
cppcheck --enable=warning,style,performance --std=c++17 --quiet --library=qt \
    --suppress=missingIncludeSystem --suppress=useStlAlgorithm -I src src ec627 tools
echo "== clang-tidy"
git ls-files 'src/*.cpp' 'ec627/*.cpp' | xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet 2>/dev/null |
    grep -E "warning:|error:" || echo "clean"
