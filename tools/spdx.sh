#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every source file and script of ours carries the line "SPDX-License-Identifier: Apache-2.0" near
# its top, in its own comment syntax (the REUSE convention):
#   bash tools/spdx.sh --check   lists the tracked files that lack it; exit 1 if any, 77 when the
#                                tree is not a git checkout (nothing to list)
#   bash tools/spdx.sh --add     adds it to those files: after a "#!" line or a header's
#                                "#pragma once" when there is one, else as the first line
set -euo pipefail
shopt -s extglob
cd "$(dirname "$0")/.."
tag="SPDX-License-Identifier: Apache-2.0"

# comment FILE: prints the comment leader for FILE's language, nothing for files without one
# (data, documents, corpora).
comment() {
    case "$1" in
    *.cpp | *.h | *.c | *.h.in) echo "//" ;;
    CMakeLists.txt | */CMakeLists.txt | *.cmake | *.sh | *.py | *.supp | .ci/run | bench/run) echo "#" ;;
    debian/rules | debian/tests/* | debian/*.lintian-overrides) echo "#" ;;
    docs/*.[18]) echo '.\"' ;;
    esac
}

git rev-parse --is-inside-work-tree >/dev/null 2>&1 || { echo "not a git checkout: nothing checked"; exit 77; }
missing=()
while IFS= read -r -d '' f; do
    if [ -z "$(comment "$f")" ] || [ ! -f "$f" ]; then continue; fi
    head -n 5 "$f" | grep -qF "$tag" || missing+=("$f")
done < <(git ls-files -z)

case "${1:-}" in
--check)
    [ ${#missing[@]} -eq 0 ] && { echo "every source file names its license"; exit 0; }
    printf 'lacks "%s": %s\n' "$tag" "${missing[@]}"
    exit 1
    ;;
--add)
    for f in "${missing[@]}"; do
        line="$(comment "$f") $tag"
        # A shebang or a header's pragma stays the first line.
        n=0
        [[ $(head -n 1 "$f") == @("#!"*|"#pragma once") ]] && n=1
        { head -n $n "$f"; printf '%s\n' "$line"; tail -n +$((n + 1)) "$f"; } >"$f.spdx"
        cat "$f.spdx" >"$f" && rm "$f.spdx"
        echo "added: $f"
    done
    ;;
*)
    echo "usage: $0 --check | --add" >&2
    exit 2
    ;;
esac
