#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# One entry point for a fresh Debian 12 machine:
#   bash tools/setup.sh demo   installs what is missing, builds, runs the demo story
#   bash tools/setup.sh test   installs what is missing, builds, runs the whole test suite
#   bash tools/setup.sh deps   only installs what is missing (the fleet bench calls it)
set -euo pipefail

mode=${1:-demo}
case "$mode" in
demo | test | deps) ;;
*)
    echo "usage: $0 demo|test|deps" >&2
    exit 2
    ;;
esac
root=$(cd "$(dirname "$0")/.." && pwd)
build=${D627_BUILD_DIR:-$root/build}
# D627_WERROR=ON turns compiler warnings into errors (CI does).
werror=${D627_WERROR:-OFF}

packages=(g++ cmake ninja-build pkg-config qtbase5-dev liblz4-dev libsodium-dev openssl iproute2 groff-base
    libbenchmark-dev gnuplot-nox nftables curl python3)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "== installing: ${missing[*]}"
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
[ "$mode" = deps ] && exit 0

echo "== building in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DD627_WERROR="$werror" >/dev/null
cmake --build "$build" -j"$(nproc)"

case "$mode" in
demo)
    exec bash "$root/tools/demo.sh" "$build"
    ;;
test)
    cd "$build"
    # Most tests wait on paced steps and timers rather than the CPU, so run twice as many as cores.
    exec ctest --output-on-failure -j"$(($(nproc) * 2))" --timeout 600
    ;;
esac
