#!/bin/sh
# The names of the flat interface: exports_test.sh NM LIBRARY LIST. Nothing else is exported, and nothing of the list is
# gone. A new function goes into the list, too.
set -eu
"$1" -D --defined-only "$2" | awk '{print $NF}' | LC_ALL=C sort >"$2.exports"
diff "$3" "$2.exports" || { echo "the exported names differ from $3" >&2; exit 1; }
