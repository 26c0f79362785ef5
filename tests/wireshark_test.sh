#!/bin/sh
# What tshark prints with the dissector is what was written, and what the simulated machine has logged.
# Usage: wireshark_test.sh PROJECT VOXDESK
set -eu
project=$1
voxdesk=$2
if ! command -v tshark >/dev/null 2>&1; then
  echo "wireshark_test: there is no tshark (Debian's package tshark)" >&2
  [ -z "${CI:-}" ] || exit 1 # nothing is left out there
  exit 77
fi
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
# Nobody's own settings and plugins.
export HOME="$dir" XDG_CONFIG_HOME="$dir" LC_ALL=C.UTF-8
# Nothing is left in the sources.
export PYTHONDONTWRITEBYTECODE=1
dissector=$project/tools/wireshark/voxmouse.lua
python3 "$project/tests/wireshark_frames.py" "$dissector" "$dir"
python3 "$project/tests/wireshark_desk.py" "$dissector" "$voxdesk" "$dir"
