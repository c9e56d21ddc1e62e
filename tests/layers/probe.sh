#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# probe.sh BUILD TARGET HEADER 1|0   builds TARGET; passes when it compiles (1), or when it fails
#                                    for want of HEADER alone (0)
# probe.sh --relative SRC            fails when a file under SRC includes a path with ".."
if [ "$1" = --relative ]; then
    if grep -rnE '^\s*#\s*include\s*[<"][^">]*\.\./' "$2"; then
        echo "FAIL: the includes above reach another folder by a relative path"
        exit 1
    fi
    exit 0
fi
build=$1 target=$2 header=$3 compiles=$4
out=$(cmake --build "$build" --target "$target" 2>&1)
status=$?
if [ "$compiles" = 1 ]; then
    [ $status = 0 ] && exit 0
    echo "$out" && echo "FAIL: $target should compile with $header" && exit 1
fi
if [ $status = 0 ]; then
    echo "FAIL: $target compiled, so $header is reachable from a lower layer" && exit 1
fi
# gcc: "x.h: No such file or directory"; clang: "'x.h' file not found".
grep -qE "$header: No such file or directory|'$header' file not found" <<<"$out" && exit 0
echo "$out" && echo "FAIL: $target failed, but not for want of $header" && exit 1
