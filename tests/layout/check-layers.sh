#!/usr/bin/env bash
# Fails when a folder under src/ includes a header of a folder above it. The layers, bottom first:
#   core -> storage -> audio, speech, keyboard, text (side by side, not including each other)
#   -> dictation -> ui -> app
# Usage: check-layers.sh SRC_DIR
set -euo pipefail
src=${1:?usage: check-layers.sh SRC_DIR}

level() {
  case "$1" in
    core) echo 0 ;; storage) echo 1 ;; audio|speech|keyboard|text) echo 2 ;;
    dictation) echo 3 ;; ui) echo 4 ;; app) echo 5 ;; *) echo "" ;;
  esac
}

bad=0
checked=0
while IFS= read -r line; do
  file=${line%%:*}
  included=$(sed -E 's/.*#include "([^"]*)".*/\1/' <<<"${line#*:}")
  from=${file#"$src"/}; from=${from%%/*}
  to=${included%%/*}
  [ "$included" = "$to" ] && continue  # a header beside the file, or a system one in quotes
  from_level=$(level "$from"); to_level=$(level "$to")
  if [ -z "$from_level" ]; then
    echo "check-layers: $file is in a folder with no layer ($from); add it to tests/layout/check-layers.sh" >&2
    bad=1; continue
  fi
  [ -z "$to_level" ] && continue  # not a folder of Tolvane's
  [ "$from" != "$to" ] && checked=$((checked + 1))
  if [ "$from" != "$to" ] && [ "$to_level" -ge "$from_level" ]; then
    echo "check-layers: $file includes $included: $from may not depend on $to" >&2
    bad=1
  fi
done < <(grep -rn --include='*.h' --include='*.cpp' '^#include "' "$src" | sed -E 's/^([^:]*):[0-9]+:/\1:/')

# An empty scan would pass whatever the code did.
if [ "$checked" -eq 0 ]; then
  echo "check-layers: found no includes of Tolvane's folders under $src" >&2
  exit 1
fi
[ "$bad" -eq 0 ] && echo "check-layers: $checked includes across folders, all downwards"
exit "$bad"
