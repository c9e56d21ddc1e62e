#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes a release from a commit: the source archive d627-<version>.tar.xz and the packages built
# from it (tools/package.sh in the unpacked archive):
#   bash tools/release.sh [--source-only] [commit] [output-folder]   (default: HEAD, ./release)
# The archive holds the commit's tracked files only, with the commit's time on every file, in
# git's order, compressed single-threaded: the same commit gives the same bytes on any machine
# with the same git and xz. The version is the commit's project(VERSION) in CMakeLists.txt; the
# commit's debian/changelog must name it.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
packages=1
[ "${1:-}" = --source-only ] && packages=0 && shift
commit=$(git -C "$root" rev-parse --verify "${1:-HEAD}^{commit}")
out=$(mkdir -p "${2:-$root/release}" && cd "${2:-$root/release}" && pwd)

version=$(git -C "$root" show "$commit:CMakeLists.txt" |
    sed -n 's/^project(d627 VERSION \([0-9.]*\).*/\1/p')
changelog=$(git -C "$root" show "$commit:debian/changelog" | sed -n '1s/^d627 (\([^)]*\)).*/\1/p')
[ -n "$version" ] || { echo "no project(d627 VERSION ...) in $commit:CMakeLists.txt" >&2; exit 1; }
[ "$changelog" = "$version" ] ||
    { echo "debian/changelog names $changelog, CMakeLists.txt $version" >&2; exit 1; }

archive=$out/d627-$version.tar.xz
git -C "$root" archive --format=tar --prefix="d627-$version/" "$commit" | xz -9 -T1 -c >"$archive.new"
mv "$archive.new" "$archive"
echo "== $(cd "$out" && sha256sum "${archive##*/}")  ($(git -C "$root" log -1 --format='%h %cI' "$commit"))"
[ $packages = 1 ] || exit 0

work=$(mktemp -d "${TMPDIR:-/tmp}/d627-release.XXXXXX")
trap 'rm -rf "$work"' EXIT
tar -C "$work" -xJf "$archive"
bash "$work/d627-$version/tools/package.sh" "$out"
