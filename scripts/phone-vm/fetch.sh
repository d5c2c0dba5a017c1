#!/usr/bin/env bash
# Fetches the emulated phone's Debian armhf kernel and static busybox into a cache folder:
#   bash scripts/phone-vm/fetch.sh CACHE_DIR
# As scripts/armhf-sysroot.sh does for the sysroot: a private apt state in CACHE_DIR/.apt that sees
# only armhf, `apt-get download` of the packages themselves (their dependencies are not wanted: the
# kernel package alone holds the kernel and its modules) and `dpkg -x` into CACHE_DIR/root. Nothing is
# installed on the host. A cache made from the same package list is reused as it is.
#
# CACHE_DIR/kbuild gets what building one module for that kernel takes (the phone's /proc/hwversion,
# scripts/phone-vm/hwversion): the kernel's headers and its armhf build tools with the few libraries
# they need. The tools are ARM programs; each is wrapped in a script that runs it under the user-mode
# emulator with CACHE_DIR/kbuild as its library root, so no machine-wide emulator registration is
# needed.
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 CACHE_DIR" >&2; exit 2; }
mkdir -p "$1"
cache=$(cd "$1" && pwd)
work=$cache/.apt
stamp_file=$cache/.packages
layout_version=2

# The private apt state and its package lists.
source "$(dirname "${BASH_SOURCE[0]}")/../private-apt.sh"

# The versioned kernel package the metapackage points at (linux-image-6.1.0-N-armmp).
kernel_package() {
  apt-cache "${apt_options[@]}" depends linux-image-armmp |
    awk '$1 == "Depends:" && $2 ~ /^linux-image-[0-9].*-armmp$/ { print $2; exit }'
}

if [ -f "$stamp_file" ] && [ -d "$cache/root" ] && head -1 "$stamp_file" | grep -qx "layout $layout_version"; then
  echo "phone kernel and busybox in $cache are up to date ($(sed -n 2p "$stamp_file"))"
  exit 0
fi

echo "fetching the phone's kernel and busybox into $cache"
rm -rf "$cache/root"
prepare_private_apt
update_lists
kernel=$(kernel_package)
[ -n "$kernel" ] || { echo "no armhf armmp kernel package found" >&2; exit 1; }
rm -f "$work/debs"/*.deb
(cd "$work/debs" && apt-get "${apt_options[@]}" -qq download "$kernel" busybox-static)
mkdir -p "$cache/root"
for deb in "$work/debs"/*.deb; do dpkg -x "$deb" "$cache/root"; done

# The module build kit of that kernel.
release=${kernel#linux-image-}
kbuild_packages=("linux-headers-$release" "linux-headers-${release%-armmp}-common" linux-kbuild-6.1
  libc6 libelf1 libssl3 zlib1g libzstd1)
rm -rf "$cache/kbuild" "$work/kbuild-debs" && mkdir -p "$cache/kbuild" "$work/kbuild-debs"
(cd "$work/kbuild-debs" && apt-get "${apt_options[@]}" -qq download "${kbuild_packages[@]}")
for deb in "$work/kbuild-debs"/*.deb; do dpkg -x "$deb" "$cache/kbuild"; done
headers=$cache/kbuild/usr/src/linux-headers-$release
sed -i "s|/usr/src/|$cache/kbuild/usr/src/|" "$headers/Makefile"
while IFS= read -r -d '' tool; do
  head -c 4 "$tool" | grep -q ELF || continue
  mv "$tool" "$tool.arm"
  printf '#!/bin/sh\nexec qemu-arm -L "%s" "$0.arm" "$@"\n' "$cache/kbuild" > "$tool"
  chmod +x "$tool"
done < <(find "$cache/kbuild/usr/lib/linux-kbuild-6.1" -type f -print0)
# Debian's modpost picks its real program by the object's ELF class, which fails under the
# emulator; the phone's modules are always 32-bit little-endian.
printf '#!/bin/sh\nexec qemu-arm -L "%s" "$(dirname "$0")/modpost.real-lsb-32.arm" "$@"\n' "$cache/kbuild" \
  > "$cache/kbuild/usr/lib/linux-kbuild-6.1/scripts/mod/modpost"
echo "$headers" > "$cache/kbuild/headers"

printf 'layout %s\n%s busybox-static\n' "$layout_version" "$kernel" > "$stamp_file"
echo "phone kernel and busybox ready: $kernel"
