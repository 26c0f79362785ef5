# Sourced by the scripts beside it: where Wine is.
project=$(cd "$(dirname "$0")/../.." && pwd)
wine32_root=$project/build/wine32-root # a Debian of its own: the two Wines do not install beside each other
wine32_prefix=/wine                    # in there
wine64=/usr/lib/wine/wine64
wine64_prefix=$project/build/wine64-prefix

# Prints the command that makes a command run as root; nothing for root.
as_root() {
  [ "$(id -u)" -eq 0 ] || echo sudo
}
