#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages d627 and d627-devtools on Debian 12 and checks them with lintian:
#   bash tools/package.sh [--rebuild] [output-folder]      (default: ./packages)
# Installs what is missing (as root, or through sudo), copies the source tree (without build
# folders) to a temporary folder, runs dpkg-buildpackage -us -uc -b there (the fast tests run in
# dh_auto_test) and leaves the .deb files (the -dbgsym ones too), the .buildinfo and .changes
# and lintian.txt in the output folder. DEB_BUILD_OPTIONS=nocheck skips the tests.
# --rebuild builds a second time from another copy: in a folder of another name and depth, later,
# with another umask, locale and time zone, without the tests, and fails unless every package is
# byte for byte the same (diffoscope then shows the differences). Checksums: sha256.txt.
set -euo pipefail
shopt -s nullglob  # no .ddeb files when the build makes no debug symbol packages

root=$(cd "$(dirname "$0")/.." && pwd)
rebuild=0
[ "${1:-}" = --rebuild ] && rebuild=1 && shift
out=$(mkdir -p "${1:-$root/packages}" && cd "${1:-$root/packages}" && pwd)
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
updated=0
# apt_install PACKAGE...: installs those that are missing.
apt_install() {
    local missing=() p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "== installing: ${missing[*]}"
    [ $updated = 1 ] || $sudo_cmd apt-get update -qq
    updated=1
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

apt_install dpkg-dev debhelper lintian fakeroot
# Whatever debian/control's Build-Depends names and is not installed yet.
unmet=$(cd "$root" && dpkg-checkbuilddeps 2>&1 | sed -n 's/.*Unmet build dependencies: //p' |
    sed -E 's/\([^)]*\)//g; s/<[^>]*>//g; s/\|[^ ]*//g')
# shellcheck disable=SC2086  # a list of package names
[ -z "$unmet" ] || apt_install $unmet

work=$(mktemp -d "${TMPDIR:-/tmp}/d627-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
version=$(cd "$root" && dpkg-parsechangelog -S Version)
jobs=$(nproc)

# build FOLDER UMASK ENV...: builds a fresh copy of the tree in FOLDER/d627-<version> with that
# umask and environment; the results land in FOLDER.
build() {
    local dir=$1 mask=$2 src=$1/d627-$version start=$SECONDS
    shift 2
    mkdir -p "$src"
    tar -C "$root" --exclude='./build*' --exclude=./packages --exclude=./.git -cf - . | tar -C "$src" -xf -
    echo "== building d627 $version in $src (umask $mask, $*)"
    (umask "$mask" && cd "$src" && env "$@" dpkg-buildpackage -us -uc -b -j"$jobs") >"$dir/build.log" 2>&1 ||
        { tail -n 60 "$dir/build.log"; echo "== the build in $src failed"; return 1; }
    echo "== built in $((SECONDS - start)) s"
}

rm -f "$out"/*.deb "$out"/*.ddeb "$out"/*.buildinfo "$out"/*.changes
build "$work/a" 0022 LC_ALL=C.UTF-8 TZ=UTC
cp "$work"/a/*.deb "$work"/a/*.ddeb "$work"/a/*.buildinfo "$work"/a/*.changes "$work"/a/build.log "$out"/
(cd "$out" && sha256sum ./*.deb ./*.ddeb) | tee "$out/sha256.txt"
if [ $rebuild = 1 ]; then
    options=${DEB_BUILD_OPTIONS:-}
    [[ " $options " == *" nocheck "* ]] || options="nocheck $options"
    build "$work/b/second/build" 0077 LC_ALL=C LANG=C TZ=Etc/GMT-14 HOME="$work/b" \
        DEB_BUILD_OPTIONS="${options% }"
    (cd "$work/b/second/build" && sha256sum ./*.deb ./*.ddeb) >"$work/b/sha256.txt"
    if cmp -s "$out/sha256.txt" "$work/b/sha256.txt"; then
        echo "== the second build gave the same bytes"
    else
        echo "== the second build differs:"
        diff "$out/sha256.txt" "$work/b/sha256.txt" || true
        apt_install diffoscope-minimal
        for deb in "$out"/*.deb "$out"/*.ddeb; do
            diffoscope --text - "$deb" "$work/b/second/build/${deb##*/}" | head -n 200 || true
        done
        exit 1
    fi
fi

echo "== lintian"
# Every tag, down to the pedantic, informational and experimental ones, is fixed or overridden with
# a reason in debian/*.lintian-overrides; the overridden ones are listed (O:), any other fails.
# (lintian's --fail-on would count the listed overrides too.)
(cd "$out" && lintian --pedantic -E --info --display-info --show-overrides ./*.changes) | tee "$out/lintian.txt"
if grep -qE '^[EWIPX]: ' "$out/lintian.txt"; then
    echo "== lintian: the tags above are neither fixed nor overridden"
    exit 1
fi
echo "== packages in $out:"
ls -1 "$out"/*.deb
