#!/usr/bin/env bash
# Makes (or reuses) a sysroot for the phone's 32-bit ARM (Debian armhf) in DIR:
#   bash scripts/armhf-sysroot.sh DIR
# First installs the host's cross compiler and the user-mode emulator by name. The armhf libraries
# never go into the host's package database (a multiarch install breaks whenever the host's amd64
# versions differ from the armhf ones): a private apt state in DIR/.apt resolves the dependency
# closure of the -dev packages below, `apt-get download` fetches it and `dpkg -x` unpacks it into DIR.
# A sysroot made from the same package list is reused as it is.
set -euo pipefail

# The armhf packages the project builds and tests against; their dependencies come along.
sysroot_packages=(
  libc6-dev libstdc++-12-dev
  libssl-dev libtinyxml2-dev libcurl4-openssl-dev libcrypt-dev libarchive-dev
  libgtest-dev libgmock-dev
)
host_tools=(g++-arm-linux-gnueabihf qemu-user)
# Raised when the way the sysroot is made changes, so that older ones are made anew.
layout_version=1

[ $# -eq 1 ] || { echo "usage: $0 SYSROOT_DIR" >&2; exit 2; }
mkdir -p "$1"
sysroot=$(cd "$1" && pwd)
work=$sysroot/.apt
stamp_file=$sysroot/.packages
# The directory is emptied before a sysroot is made in it: only ever one this script made.
if [ -n "$(ls -A "$sysroot")" ] && [ ! -d "$work" ]; then
  echo "$sysroot is not empty and holds no sysroot made here; give an empty or new directory" >&2
  exit 2
fi

install_host_tools() {
  local missing=() p
  for p in "${host_tools[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  # --no-install-recommends keeps the emulator's binfmt registration off the machine.
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}" ||
    { $sudo apt-get update && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"; }
}

# The private apt state and its package lists.
source "$(dirname "${BASH_SOURCE[0]}")/private-apt.sh"

# Every package an install of the list into an empty system would unpack.
package_closure() {
  apt-get "${apt_options[@]}" -s install --no-install-recommends "${sysroot_packages[@]}" |
    awk '$1 == "Inst" { print $2 }' | sort -u
}

# Absolute symbolic links point into the build machine's root; inside the sysroot they must point
# at its own files.
relativize_links() {
  local link target
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    case $target in
      /*) ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$sysroot$target")" "$link" ;;
    esac
  done < <(find "$sysroot" -path "$work" -prune -o -type l -print0)
}

install_host_tools

wanted=$(printf '%s\n' "layout $layout_version" "${sysroot_packages[@]}")
if [ -f "$stamp_file" ] && [ "$(cat "$stamp_file")" = "$wanted" ]; then
  echo "armhf sysroot in $sysroot is up to date"
  exit 0
fi

echo "making the armhf sysroot in $sysroot"
find "$sysroot" -mindepth 1 -maxdepth 1 ! -name .apt -exec rm -rf {} +
prepare_private_apt
update_lists
mapfile -t closure < <(package_closure)
[ ${#closure[@]} -gt 0 ] || { echo "no armhf packages resolved" >&2; exit 1; }
rm -f "$work/debs"/*.deb
(cd "$work/debs" && apt-get "${apt_options[@]}" -qq download "${closure[@]}")
for deb in "$work/debs"/*.deb; do dpkg -x "$deb" "$sysroot"; done
relativize_links
echo "$wanted" > "$stamp_file"
echo "armhf sysroot ready: ${#closure[@]} packages"
