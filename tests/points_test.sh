#!/bin/sh
# points_test.sh COMPILER PROJECT: a build that does not search schedules has nothing of their points and probes in it. The
# objects are, byte for byte, those of sources from which both have been removed.
set -eu
compiler=$1
project=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/with" "$folder/without"
for copy in with without; do
  cp -r "$project/src" "$project/include" "$folder/$copy"
done
(
  cd "$folder/without"
  sed -i '/^#ifdef VOXDEVICE_EXPLORE/,/^#endif/d' include/VoxDevice/Shared.h
  find . -name '*.h' -o -name '*.cpp' | xargs sed -i -E 's/\bAtomic</std::atomic</g; s/return Probe<".*">\(\);/return;/; s/Probe<".*">\(\)/(void)0/; s/AtClientCode\(-?1\)/(void)0/'
  ! grep -rnE '^[^/]*([^:]\bAtomic<|Probe<")' include src
)
for source in hid/DeviceReader hid/FirmwareUpdate hub/HubLifecycle hub/HubDiscovery audio/Recording audio/VoxRecord \
  legacy/FormerMouse support/Worker; do
  for copy in with without; do
    (
      cd "$folder/$copy"
      "$compiler" -std=c++20 -O2 -DVOXDEVICE_STATIC -DVOXDEVICE_BUILDING -Iinclude -Isrc -c "src/$source.cpp" -o object.o
    )
  done
  cmp "$folder/with/object.o" "$folder/without/object.o"
done
