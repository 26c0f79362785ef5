# Sourced by the scripts that set up a build: makes sure that Debian packages are there.

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
    echo "compiler (g++ 12, clang++ 14 or later) and the libraries CLI11, nlohmann-json, GoogleTest, and run it again." >&2
    return 1
  fi
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing="$missing $package"
  done
  [ -z "$missing" ] && return 0
  sudo=
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
      echo "These packages are missing, and there is no sudo to install them with. As root: apt-get install$missing" >&2
      return 1
    fi
    sudo=sudo
  fi
  echo "Installing:$missing"
  $sudo apt-get update -qq || echo "The package lists could not be updated; trying with the old ones." >&2
  # shellcheck disable=SC2086
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
}
