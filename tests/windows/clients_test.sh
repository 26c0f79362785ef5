#!/bin/sh
# Clients of VoxDeviceC.dll that no g++ has built: clients_test.sh BUILD PROJECT MACHINE WINE, MACHINE i386 or i386:x86-64.
# A C program of clang's for Visual Studio's ABI, linked with an import library made from the list of names, and a Go
# program: each records a virtual Wren behind the HID minidriver, sample for sample. Then the C program on the stand-in.
set -eu
build=$1 project=$2 machine=$3 wine=$4
work=$build/clients_test
rm -rf "$work"
mkdir -p "$work/simulated"
export TMPDIR="$work"
case $machine in
  i386) target=i686-pc-windows-msvc goarch=386 lld=x86 ;;
  *) target=x86_64-pc-windows-msvc goarch=amd64 lld=x64 ;;
esac

# The import library for Visual Studio's linker is in the package, too.
cp "$build/VoxDeviceC.lib" "$work"
printf 'LIBRARY msvcrt.dll\nEXPORTS\n' >"$work/msvcrt.def"
for name in _iob fopen fclose fputc fputs fprintf printf perror exit __getmainargs; do echo "$name"; done >>"$work/msvcrt.def"
llvm-dlltool -m "$machine" -d "$work/msvcrt.def" -l "$work/msvcrt.lib"
clients=$project/tests/clients
for source in "$project/examples/c/record.c" "$clients/msvc/start.c"; do
  clang --target=$target -O2 -Wall -Wextra -Werror -ffreestanding -nostdlibinc -isystem "$clients/msvc" \
    -I"$project/include" -c "$source" -o "$work/$(basename "$source" .c).obj"
done
lld-link /machine:$lld /subsystem:console,6.01 /entry:start /nodefaultlib /safeseh:no /out:"$work/record_msvc.exe" "$work/record.obj" \
  "$work/start.obj" "$work/VoxDeviceC.lib" "$work/msvcrt.lib"
HOME=$work GOCACHE=$work/go GOOS=windows GOARCH=$goarch GO111MODULE=off go build -o "$work/record_go.exe" "$project/examples/go/record.go"
cp "$build/bin/VoxDeviceC.dll" "$work"
cp "$build/bin/simulated/VoxDeviceC.dll" "$work/record_msvc.exe" "$work/simulated"

"$wine" "$build/bin/plug.exe" Wren 25 "$project/samples/sentence.wav" >"$work/plug.log" 2>&1 &
plug=$!
trap 'kill $plug 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  grep -q "plugged in" "$work/plug.log" && break
  sleep 0.1
done
"$clients/check.py" "$wine" "$work/record_msvc.exe"
"$clients/check.py" "$wine" "$work/record_go.exe"
wait $plug || { cat "$work/plug.log"; exit 1; }
trap - EXIT
VOXDEVICE_DESK="$clients/held-key.json" "$clients/check.py" "$wine" "$work/simulated/record_msvc.exe"
