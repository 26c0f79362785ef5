#!/bin/sh
# ./run beside stand-ins of what it calls: run_test.sh PROJECT. What it says, to whom, and how it ends.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/a project/tools" "$work/bin"
cp "$1/run" "$work/a project"
cp "$1/tools/packages.sh" "$work/a project/tools"
ln -s "$work/a project/run" "$work/link"
for tool in cat chmod dirname grep mkdir readlink sh tail; do ln -s "$(command -v $tool)" "$work/bin"; done
stub() {
  printf '#!/bin/sh\n%s\n' "$2" >"$work/bin/$1"
  chmod +x "$work/bin/$1"
}
stub id 'if [ "$1" = -u ]; then echo "$WHO"; else echo visitor; fi'
stub dpkg-query '[ -e ../installed ] && echo installed'
stub apt-get 'echo "apt is talkative"
  if [ "$1" = update ]; then exit "$UPDATE"; fi
  [ "$INSTALL" -eq 0 ] || { echo "E: Failed to fetch it"; exit "$INSTALL"; }
  >../installed'
sudo='echo asked >>../asked
  [ "$1" != -n ] || shift
  [ "$SUDO" -eq 0 ] && "$@"'
stub cmake '[ "$1" = --build ] || exit 0
  [ "$BUILD" -eq 0 ] || { echo "[1/4] a"; echo "FAILED: b"; echo "b.cpp: a mistake"; exit 1; }
  [ ! -e build/client/bin/voxdesk ] || { echo "ninja: no work to do."; exit 0; }
  for step in 1 2 3 4; do echo "[$step/4] a file"; done
  mkdir -p build/client/bin
  printf "#!/bin/sh\n%s\n" "echo {} \"\$*\"; exit 7" >build/client/bin/voxdesk
  chmod +x build/client/bin/voxdesk'

# expect NAME STATUS OUT ERR [VARIABLE=VALUE]...: a run ends so; ERR is a pattern of the shell for all of standard error.
# It is called through a link, and in the folder of the project.
expect() {
  name=$1 status=$2 out=$3 err=$4 got=0
  shift 4
  (cd "$work/a project" && env -i PATH="$work/bin" WHO=0 SUDO=0 UPDATE=0 INSTALL=0 BUILD=0 "$@" ../link --json x) \
    >"$work/out" 2>"$work/err" </dev/null || got=$?
  # shellcheck disable=SC2254
  case "$got:$(cat "$work/out"):$(cat "$work/err")" in
    "$status:$out:"$err) ;;
    *) echo "$name: ended with $got"; cat "$work/out" "$work/err"; failed=1 ;;
  esac
}
failed=0
installing="Installing: g++ cmake ninja-build libcli11-dev libfmt-dev libhidapi-dev libstb-dev nlohmann-json3-dev
"
expect "no sudo" 1 "" "Packages are missing, and there is no sudo to *: apt-get update && apt-get install g++ *" WHO=5
stub sudo "$sudo"
expect "sudo refused" 1 "" "${installing}Packages are missing, and sudo does not let visitor *" WHO=5 SUDO=1
expect "no network" 1 "" "${installing}Packages are missing, and Debian's servers *Connect to the network and *" UPDATE=100 INSTALL=100
expect "apt fails" 1 "" "${installing}apt-get, for*Failed to fetch*and apt-get could not install them*" INSTALL=100
expect "the build fails" 1 "" "${installing}Building voxdesk ... 25 %
FAILED: b
b.cpp: a mistake" WHO=5 UPDATE=100 BUILD=1
expect "builds" 7 "{} --json x" "Building voxdesk ... 25 %
Building voxdesk ... 50 %
Building voxdesk ... 75 %
Building voxdesk ... 100 %"
expect "nothing to do" 7 "{} --json x" ""
[ "$(cat "$work/asked")" = "asked
asked" ] || { echo "sudo was asked more than once in a run"; failed=1; }
exit $failed
