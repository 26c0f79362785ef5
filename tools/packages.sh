# shellcheck shell=sh disable=SC2154
# Sourced by the scripts that set up a build, which say in $project where the project is: makes sure that Debian packages
# are there. What it has to say goes to standard error.

# need PACKAGE...: installs those that are missing; with sudo where we are not root.
need() {
  missing=
  if ! command -v dpkg-query >/dev/null 2>&1; then
    for tool in cmake ninja c++; do
      command -v "$tool" >/dev/null 2>&1 || missing="$missing $tool"
    done
    [ -z "$missing" ] && return 0
    echo "These tools are missing:$missing." >&2
    echo "This script installs packages on Debian and its relatives only. Elsewhere, install CMake 3.25, Ninja, a C++20" >&2
    echo "compiler (g++ 12, clang++ 14 or later) and the libraries CLI11, hidapi, stb, nlohmann-json, GoogleTest, and run it again." >&2
    return 1
  fi
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing="$missing $package"
  done
  [ -z "$missing" ] || install_missing
}

install_missing() {
  apt_log=$project/build/packages.log
  mkdir -p "$project/build"
  by_hand="As root: apt-get update && apt-get install$missing"
  if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null 2>&1; then
    echo "Packages are missing, and there is no sudo to install them with. $by_hand" >&2
    return 1
  fi
  echo "Installing:$missing" >&2
  # Only what apt says: a password is asked for in the open.
  if apt_as_root >"$apt_log"; then return 0; fi
  if [ ! -s "$apt_log" ]; then
    echo "Packages are missing, and sudo does not let $(id -un) install them. $by_hand" >&2
  elif grep -qx "no package lists" "$apt_log" && grep -qE '^E: (.*Unable to locate|Failed to fetch)|candidate' "$apt_log"; then
    echo "Packages are missing, and Debian's servers could not be reached to install them ($apt_log has the details)." \
      "Connect to the network and run this again." >&2
  else
    tail -n 5 "$apt_log" >&2
    echo "Packages are missing, and apt-get could not install them ($apt_log has the rest). $by_hand" >&2
  fi
  return 1
}

# Asks sudo once for all of it, and where nobody can be asked for a password, for nothing but a yes or no.
apt_as_root() {
  # shellcheck disable=SC2016
  commands='exec 2>&1; export LC_ALL=C DEBIAN_FRONTEND=noninteractive
    echo "apt-get, for$*:"
    retries=3
    apt-get update -qq -o Acquire::Retries=1 -o APT::Update::Error-Mode=any || { echo "no package lists"; retries=0; }
    apt-get install -y -qq --no-install-recommends -o Acquire::Retries=$retries -o DPkg::Lock::Timeout=120 $*'
  if [ "$(id -u)" -eq 0 ]; then
    sh -c "$commands" sh "$missing"
  elif (: >/dev/tty) 2>/dev/null; then
    sudo sh -c "$commands" sh "$missing"
  else
    sudo -n sh -c "$commands" sh "$missing" 2>/dev/null
  fi
}
