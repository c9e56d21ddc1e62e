#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The version lives in the top CMakeLists.txt; everything that names it must agree with it: the
# Debian changelog, the release notes, the manual pages, the protocol document and the tools'
# --version. Usage: version.sh VERSION SOURCE_DIR BIN_DIR
V=$1 SRC=$2 BIN=$3
status=0
bad() { echo "$1 says '$2', not $V" && status=1; }
v=$(sed -n '1s/^d627 (\([^)]*\)).*/\1/p' "$SRC/debian/changelog")
[ "$v" = "$V" ] || bad debian/changelog "$v"
grep -q "^## $V\b" "$SRC/NEWS.md" || bad NEWS.md "$(grep -m1 '^## ' "$SRC/NEWS.md")"
for page in "$SRC"/docs/*.[18]; do
    grep -q "^\.TH .* \"d627 $V\"" "$page" || bad "$page" "$(grep '^\.TH' "$page")"
done
grep -qF "d627 $V." "$SRC/docs/protocol.md" || bad docs/protocol.md "$(sed -n 3p "$SRC/docs/protocol.md")"
for tool in d627-sandbox d627-mainapp d627-logview; do
    out=$("$BIN/$tool" --version)
    [ "$out" = "$tool $V" ] || bad "$tool --version" "$out"
done
exit $status
