#!/bin/sh
# idle.sh BIN [SECONDS]: runs idle.exe in BIN, the folder of VoxDevice.dll, beside a plugged-in Wren, under 32-bit Wine, and
# counts how often its threads wake up.
set -eu
seconds=${2:-60}
wine=$(cd "$(dirname "$0")/../../tools/wine" && pwd)/wine32
cd "$1"
ls -l VoxDevice.dll | awk '{printf "VoxDevice.dll: %d KB, ", $5 / 1024}'
"${STRIP:-i686-w64-mingw32-strip}" -o "${TMPDIR:-/tmp}/VoxDevice.stripped" VoxDevice.dll
ls -l "${TMPDIR:-/tmp}/VoxDevice.stripped" | awk '{printf "%d KB stripped\n", $5 / 1024}'
"$wine" ./plug.exe Wren $((seconds + 40)) >/dev/null &
plug=$!
trap 'kill $plug 2>/dev/null || true' EXIT
sleep 5
wakeups() {
  for process in /proc/[0-9]*; do
    tr '\0' ' ' <"$process/cmdline" 2>/dev/null | grep -q '^[^ ]*idle\.exe\|^\./idle\.exe' || continue
    cat "$process"/task/*/status 2>/dev/null | awk '/^voluntary_ctxt_switches/ {sum += $2} END {print sum + 0}'
  done | sort -n | tail -1
}
"$wine" ./idle.exe "$seconds" | while IFS= read -r line; do
  line=$(printf '%s' "$line" | tr -d '\r')
  case $line in
    "idle for"*) first=$(wakeups) ;;
    over) continue ;;
    CPU*) ;;
  esac
  echo "$line"
  case $line in
    "idle for"*) sleep $((seconds - 2)); echo "wake-ups: $(($(wakeups) - first)) in $((seconds - 2)) s" ;;
  esac
done
