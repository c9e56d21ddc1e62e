#!/usr/bin/env bash
# Builds the Debian packages d627 and d627-devtools on Debian 12 and checks them with lintian:
#   bash tools/package.sh [output-folder]      (default: ./packages)
# Installs what is missing (as root, or through sudo), copies the source tree (without build
# folders) to a temporary folder, runs dpkg-buildpackage -us -uc -b there (the test suite runs in
# dh_auto_test) and leaves the .deb files, the .buildinfo and .changes and lintian.txt in the
# output folder. DEB_BUILD_OPTIONS=nocheck skips the tests.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$(mkdir -p "${1:-$root/packages}" && cd "${1:-$root/packages}" && pwd)
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
apt_install() {
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "$@"
}

tools=(dpkg-dev debhelper lintian fakeroot)
missing=()
for p in "${tools[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
updated=0
if [ ${#missing[@]} -gt 0 ]; then
    $sudo_cmd apt-get update -qq && updated=1
    apt_install "${missing[@]}"
fi
# Whatever debian/control's Build-Depends names and is not installed yet.
unmet=$(cd "$root" && dpkg-checkbuilddeps 2>&1 | sed -n 's/.*Unmet build dependencies: //p' |
    sed -E 's/\([^)]*\)//g; s/<[^>]*>//g; s/\|[^ ]*//g')
if [ -n "$unmet" ]; then
    echo "== installing build dependencies: $unmet"
    [ $updated = 1 ] || $sudo_cmd apt-get update -qq
    # shellcheck disable=SC2086  # a list of package names
    apt_install $unmet
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/d627-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
version=$(cd "$root" && dpkg-parsechangelog -S Version)
src=$work/d627-$version
mkdir -p "$src"
tar -C "$root" --exclude='./build*' --exclude=./packages --exclude=./.git -cf - . | tar -C "$src" -xf -

echo "== building d627 $version in $src"
start=$(date +%s)
(cd "$src" && dpkg-buildpackage -us -uc -b)
echo "== built in $(($(date +%s) - start)) s"

cp "$work"/*.deb "$work"/*.buildinfo "$work"/*.changes "$out"/
echo "== lintian"
# Errors fail this script; the warnings that stay are explained in README.md ("Package").
(cd "$work" && lintian --info --display-info --fail-on error ./*.changes) | tee "$out/lintian.txt"
echo "== packages in $out:"
ls -1 "$out"/*.deb
