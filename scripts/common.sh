# Sourced by the other scripts. Stops at the first failure; paths are relative to the checkout.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

# install_packages PACKAGE...: installs the Debian packages that are missing.
install_packages() {
  local missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  command -v apt-get >/dev/null || { echo "these packages are missing: ${missing[*]}" >&2; exit 1; }
  say "installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -q -y --no-install-recommends "${missing[@]}"
}

build_packages=(g++ cmake make ccache protobuf-compiler libprotobuf-dev libcli11-dev nlohmann-json3-dev libpng-dev
                libjpeg-dev)

