#!/bin/sh
# Debian's packages: debian_test.sh BUILD PROJECT. Makes, installs, uses and removes them; with root or sudo.
set -eu
build=$1 project=$2
work=$build/debian_test
rm -rf "$work"
mkdir -p "$work"
as_root=
[ "$(id -u)" -eq 0 ] || as_root=sudo
(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
$as_root dpkg -i "$work"/*.deb >"$work/dpkg.log"
trap '$as_root dpkg -r voxdesk libvoxdevice-dev >/dev/null' EXIT
voxdesk --virtual-time --out "$work/take.wav" | grep -q "nothing is left open"
test -e /usr/share/man/man1/voxdesk.1.gz || test -e /usr/share/man/man1/voxdesk.1
test -e /usr/lib/udev/rules.d/70-voxmouse.rules
voxdesk --desk hardware --json devices >/dev/null
# Each shell completes "voxdesk mo", and knows the name of every option that is there.
bash -c '. /usr/share/bash-completion/completions/voxdesk; COMP_WORDS=(voxdesk mo); COMP_CWORD=1; _voxdesk
  [ "${COMPREPLY[*]}" = monitor ] || exit 1
  COMP_WORDS=(voxdesk --device mo) COMP_CWORD=2; _voxdesk; [ "${COMPREPLY[*]}" = "" ] || exit 1
  COMP_WORDS=(voxdesk mkey s) COMP_CWORD=2; _voxdesk; [ "${COMPREPLY[*]}" = set ] || exit 1
  COMP_WORDS=(voxdesk mkey set mo) COMP_CWORD=3; _voxdesk; [ "${COMPREPLY[*]}" = "" ] || exit 1
  cd /etc; COMP_WORDS=(voxdesk --desk = debian_v) COMP_CWORD=3; _voxdesk; [ "${COMPREPLY[*]}" = debian_version ]'
[ "$(fish -c 'complete -C "voxdesk mo"')" = monitor ]
[ "$(fish -c 'complete -C "voxdesk mkey s"')" = set ]
[ "$(fish -c 'complete -C "voxdesk mkey set s"')" = "" ]
zsh -fc 'words=(voxdesk mo) CURRENT=2; compadd() print -l -- $*; complete() . /usr/share/zsh/vendor-completions/_voxdesk
  complete' >"$work/words"
grep -qx monitor "$work/words"
zsh -fc 'words=(voxdesk mkey set "") CURRENT=4; compadd() print -l -- $*; complete() . /usr/share/zsh/vendor-completions/_voxdesk
  complete' >"$work/behind"
grep -qx -e --desk "$work/behind"
[ "$(grep -cv ^- "$work/behind")" -eq 0 ]
{ voxdesk --help; for each in $(grep -v '^-' "$work/words"); do voxdesk "$each" --help; done; } |
  sed -n 's/^ *\(-[a-zA-Z], *\)\{0,1\}\(--[a-z-]*\).*/\2/p' | sort -u >"$work/options"
grep '^--.' "$work/words" | sort | diff "$work/options" -
# shellcheck disable=SC2046
cc "$project/examples/c/record.c" $(pkg-config --cflags --libs VoxDeviceC) -o "$work/record"
VOXDEVICE_DESK="$project/tests/clients/held-key.json" "$project/tests/clients/check.py" "$work/record"
PYTHONPATH=/usr/share/doc/VoxDevice/bindings/python VOXDEVICE_DESK="$project/tests/clients/held-key.json" \
  "$project/tests/clients/check.py" python3 "$project/examples/python/record.py"
cmake -S "$project/examples/client" -B "$work/client" -G Ninja >/dev/null
cmake --build "$work/client" >/dev/null
trap - EXIT
$as_root dpkg -r voxdesk libvoxdevice-dev >"$work/dpkg.log"
[ ! -e /usr/bin/voxdesk ] || { echo "voxdesk is still there" >&2; exit 1; }
