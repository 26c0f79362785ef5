#!/bin/sh
# The library's interface: exports_test.sh OBJDUMP LIBRARY LIST. The exported names are those of the list, and it needs
# no library that is not Windows' own. After a deliberate change: objdump -p as below, into the list.
set -eu
objdump=$1 library=$2 list=$3
"$objdump" -p "$library" >"$library.headers"
sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' "$library.headers" | awk '$1 ~ /^\[/ && NF > 1 && NR > 1 {print $NF}' |
  LC_ALL=C sort >"$library.exports"
[ -s "$library.exports" ] || { echo "no exported name found" >&2; exit 1; }
diff "$list" "$library.exports" || { echo "the exported names differ from $list" >&2; exit 1; }
needs=$(awk '/DLL Name:/ {print tolower($3)}' "$library.headers" | LC_ALL=C sort | tr '\n' ' ')
[ "$needs" = "avrt.dll hid.dll kernel32.dll msvcrt.dll ole32.dll setupapi.dll user32.dll winmm.dll " ] ||
  { echo "the library needs: $needs" >&2; exit 1; }
