#!/usr/bin/env bash
# Builds an emulated ARM phone from the phone build and drives it through real boots, real reboots
# and real power cuts:
#   bash scripts/phone-vm.sh
# The phone build is cross-built (cmake/armhf.cmake, PROVISOR_PHONE_BUILD=ON) and installed with
# DESTDIR into a staging folder; its programs, Debian's armhf busybox-static, the shared libraries
# from the sysroot and scripts/phone-vm/init make the initramfs; Debian's armhf kernel boots it on
# `qemu-system-arm -M virt`. /config, /phone, /valdrun and the boot loader's store live on an ext4
# disk image (cache=directsync: a guest fsync reaches the image file). The guest's network reaches
# exactly one nginx on the host's loopback, as 10.0.2.100:80, and nothing else.
#
# Scenarios, one result line each:
#   1 power-on provisioning whose settings ask for a restart: the daemon reboots the machine for real
#   2 the next boot finds both files unchanged and does not reboot; the settings on the disk equal
#     what the host build writes for the same files
#   3 power cuts: SIGKILL of QEMU at random moments of a run that changes many files (PHONE_VM_CUTS,
#     default 20), each on a fresh copy of the disk; every file wholly old or wholly new after the
#     cut, all new after the next boot's run, no temporary left
#   4 firmware of the duna family: safe mode armed, reboot, the boot loader's install, and the boot
#     after it runs the new version without installing it again
# Environment: PHONE_VM_CUTS, ARMHF_SYSROOT, PHONE_VM_CACHE (kernel and busybox, default
# ~/.cache/provisor/phone-vm), PHONE_VM_KEEP=1 keeps the work folder. Exit status 0 only when all
# four scenarios hold.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
here=$top/scripts

cuts_wanted=${PHONE_VM_CUTS:-20}
cache_home=${XDG_CACHE_HOME:-$HOME/.cache}/provisor
sysroot=${ARMHF_SYSROOT:-$cache_home/armhf-sysroot}
vm_cache=${PHONE_VM_CACHE:-$cache_home/phone-vm}
vm_mac=001565aabbcc
vm_mac_colons=00:15:65:aa:bb:cc
# Device id 23 (a video model of the duna family), board revision 9: model RM410P.
vm_hwversion=23.0.0.0.0.0.9
boot_limit=180

work=$(mktemp -d /tmp/phone-vm-XXXXXX)
chmod 755 "$work"  # nginx's workers read the published files as another user
nginx_pid=""
vm_pid=""
cleanup() {
  [ -n "$vm_pid" ] && kill -KILL "$vm_pid" 2>/dev/null || true
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null || true
  if [ "${PHONE_VM_KEEP:-0}" = 1 ]; then echo "phone-vm: work folder kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

source "$here/phone-vm/machine.sh"
source "$here/phone-vm/scenarios.sh"

echo "== phone-vm: builds, kernel, root file system"
bash scripts/armhf-sysroot.sh "$sysroot"
bash scripts/phone-vm/fetch.sh "$vm_cache"
export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
command -v ccache > /dev/null || unset CMAKE_CXX_COMPILER_LAUNCHER CMAKE_C_COMPILER_LAUNCHER
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build-phone -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake \
  -DARMHF_SYSROOT="$sysroot" -DPROVISOR_PHONE_BUILD=ON -DPROVISOR_TESTS=OFF -DPROVISOR_BENCH=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr --no-warn-unused-cli > /dev/null
cmake --build build-phone -j "$jobs" > /dev/null
DESTDIR="$work/stage" cmake --install build-phone > /dev/null
# The host build writes the reference settings of scenario 2 and signs nothing: only its programs.
[ -f build/CMakeCache.txt ] || cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$jobs" --target autoptool > /dev/null

kernel=$(ls "$vm_cache"/root/boot/vmlinuz-*-armmp | head -1)
initramfs=$work/initramfs.cpio.gz
build_hwversion_module "$vm_cache/kbuild"
make_initramfs "$work/stage" "$vm_cache/root" "$sysroot" "$initramfs"
initramfs_bytes=$(stat -c %s "$initramfs")
unpacked_kib=$(du -sk "$work/initramfs" | cut -f1)
start_server
make_keys_and_seed

passed=0
run_scenario() { if "$@"; then passed=$((passed + 1)); fi; }
run_scenario scenario_power_on
run_scenario scenario_unchanged
run_scenario scenario_power_cuts
run_scenario scenario_firmware

echo "phone-vm: figures: boot to first run ${first_run_host:-?} s from QEMU start (${first_run_guest:-?} s of guest uptime)," \
  "daemon RSS idle ${rss_idle:-?} kB, at the peak of a run ${rss_peak:-?} kB," \
  "initramfs $initramfs_bytes bytes (gzip; $unpacked_kib KiB unpacked)"
echo "phone-vm: $passed/4 scenarios, $cuts_done power cuts ($cuts_in_writes during writes), $torn torn"
[ "$passed" -eq 4 ]
