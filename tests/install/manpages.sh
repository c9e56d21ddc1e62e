#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The manual pages render without a warning and name every option of the tools' --help.
# Usage: manpages.sh BIN_DIR DOCS_DIR
status=0
for page in "$2"/*.[18]; do
    out=$(groff -ww -man -z "$page" 2>&1)
    [ -z "$out" ] || { echo "$page: $out" && status=1; }
done
for tool in d627-sandbox d627-mainapp d627-logview; do
    text=$(groff -man -Tascii -P-cbou -rLL=300n "$2/$tool.1")
    for opt in $("$1/$tool" --help | grep -oE -- '--[a-z-]+' | sort -u); do
        grep -qF -- "$opt" <<<"$text" || { echo "$tool.1 lacks $opt" && status=1; }
    done
done
exit $status
