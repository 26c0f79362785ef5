#!/bin/sh
# What a user of the package has: package_test.sh BUILD TOOLCHAIN WINE. Makes the ZIP, builds the example client
# against what is in it, and runs the client and voxdesk with a virtual Wren plugged in.
set -eu
build=$1 toolchain=$2 wine=$3
work=$build/package_test
rm -rf "$work"
mkdir -p "$work"

cpack --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log"
(cd "$work" && cmake -E tar xf ./*.zip)
package=$(echo "$work"/VoxDevice-*/)
for file in bin/VoxDevice.dll lib/libVoxDevice.dll.a include/VoxDevice/VoxDevice.h bin/voxdesk.exe README.md \
  docs/windows.md examples/client/main.cpp THIRD-PARTY.md bin/VoxDeviceC.dll lib/VoxDeviceC.lib lib/libVoxDeviceC.dll.a \
  include/VoxDevice/voxdevice.h bindings/python/voxdevice.py simulated/VoxDevice.dll simulated/VoxDeviceC.dll \
  simulated/README.txt; do
  [ -f "$package/$file" ] || { echo "missing in the package: $file" >&2; exit 1; }
done
cmake -S "$package/examples/client" -B "$work/client" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_PREFIX_PATH="$package" >"$work/configure.log"
cmake --build "$work/client" >"$work/build.log" || { cat "$work/build.log" >&2; exit 1; }
cp "$package/bin/VoxDevice.dll" "$work/client"
mkdir "$work/stand-in"
cp "$work/client/client.exe" "$package/simulated/VoxDevice.dll" "$work/stand-in"
# Every link in its documents leads to something that is there.
(cd "$package" && grep -oE '\]\([^)#:]+' README.md CONTRIBUTING.md docs/*.md | while IFS=: read -r document link; do
  [ -e "$(dirname "$document")/${link#??}" ] || { echo "dangling in the package: $document ${link#??}" >&2; exit 1; }
done)
# Another compiler, here that of this system, gets a sentence.
if cmake -S "$package/examples/client" -B "$work/other" -DCMAKE_PREFIX_PATH="$package" >"$work/other.log" 2>&1 ||
  ! grep -q "built by g++ of mingw-w64" "$work/other.log"; then
  cat "$work/other.log" >&2
  exit 1
fi

# expect PATTERN COMMAND...: runs a command that must succeed and have a line of this pattern in its output.
expect() {
  pattern=$1
  shift
  "$@" >"$work/out" 2>&1 || { cat "$work/out"; echo "failed: $*" >&2; exit 1; }
  grep -qE -- "$pattern" "$work/out" || { cat "$work/out"; echo "not in the output of $*: $pattern" >&2; exit 1; }
}
# The simulated desk is in the package too, with what it says.
expect "Stopped: nothing is left open." "$wine" "$package/bin/voxdesk.exe" --desk default --virtual-time --out "$work/录音.wav"
[ -s "$work/录音.wav" ] || { echo "the recording has another name:" "$work"/*.wav >&2; exit 1; }

# The same client, unchanged, without hardware.
VOXDEVICE_DESK="$(dirname "$0")/../clients/held-key.json" expect "recorded [345]\.[0-9] s" "$wine" "$work/stand-in/client.exe" 15

"$wine" "$build/bin/plug.exe" Wren 40 >"$work/plug.log" 2>&1 &
plug=$!
trap 'kill $plug 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  grep -q "plugged in" "$work/plug.log" && break
  sleep 0.1
done
expect "recorded [12]\.[0-9] s" "$wine" "$work/client/client.exe" 15 "$work/client.pcapng"
expect "left button up" "$wine" "$package/bin/voxdesk.exe" monitor --seconds 8 --capture "$work/monitor.pcapng"
cp "$work/out" "$work/monitored"
expect "VoxMouse Wren +USB +80 %  1600" "$wine" "$package/bin/voxdesk.exe" devices
wait $plug || { cat "$work/plug.log"; exit 1; }

# What was recorded there is a desk here, with the same results.
voxdesk=$build/../dev/bin/voxdesk
[ -x "$voxdesk" ] || voxdesk=$build/../client/bin/voxdesk
[ -x "$voxdesk" ] || { echo "the captures are not replayed on Linux: there is no $voxdesk; ./run makes it" >&2; exit 1; }
expect "wrote $work/again.wav: [12]\.[0-9]+ s, 16 kHz" "$voxdesk" --desk "$work/client.pcapng" --virtual-time --out "$work/again.wav"
expect "Recorded device 1" "$voxdesk" --desk "$work/monitor.pcapng" --virtual-time monitor --seconds 9
said() { sed -nE 's/^ *[0-9.]+ s  //p' "$1" | tr -d '\r' | grep -v "^Recorded device"; }
said "$work/monitored" >"$work/then"
said "$work/out" | head -n "$(wc -l <"$work/then")" | diff "$work/then" - || { echo "replayed otherwise" >&2; exit 1; }
