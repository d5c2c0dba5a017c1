#!/usr/bin/env bash
# Installs the dependencies, builds the project three times (normal; with AddressSanitizer and
# UndefinedBehaviorSanitizer; cross-built for the phone's 32-bit ARM) and runs the whole test suite
# in each (the normal one also each test program alone, shuffled). The ARM suite runs under the user-mode emulator against a sysroot cached in
# $ARMHF_SYSROOT (default ~/.cache/provisor/armhf-sysroot); PROVISOR_SKIP_ARMHF=1 leaves it out.
# Fourth, the phone build boots on an emulated ARM phone (scripts/phone-vm.sh) with a few power cuts
# (PHONE_VM_CUTS, default 4 here); its kernel and busybox are cached beside the sysroot;
# PROVISOR_SKIP_VM=1 leaves it out.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)

build_and_test() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  local start=$SECONDS
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600)
  echo "-- $dir: tests took $((SECONDS - start)) s"
}

echo "== normal build =="
build_and_test build
echo "== normal build: each test program alone, in a shuffled order =="
# No test may lean on what an earlier one left behind: every program runs by itself with its tests
# in a random order (the seed is printed, so a failure can be replayed with --gtest_random_seed).
start=$SECONDS
seed=$(( (RANDOM % 9999) + 1 ))
echo "-- shuffle seed $seed"
find build -maxdepth 1 -name 'test_*' -type f -perm -u+x | xargs -P "$jobs" -I{} sh -c \
  '{} --gtest_shuffle --gtest_random_seed='"$seed"' >"{}.shuffled.log" 2>&1 || { tail -40 "{}.shuffled.log"; echo "FAILED: {}"; exit 1; }'
echo "-- shuffled runs took $((SECONDS - start)) s"
echo "== sanitizer build (ASan + UBSan) =="
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
build_and_test build-asan -DPROVISOR_SANITIZE=ON -DPROVISOR_BENCH=OFF
unset ASAN_OPTIONS UBSAN_OPTIONS
if [ "${PROVISOR_SKIP_ARMHF:-0}" != 1 ]; then
  echo "== 32-bit ARM build under emulation =="
  sysroot=${ARMHF_SYSROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/provisor/armhf-sysroot}
  bash scripts/armhf-sysroot.sh "$sysroot"
  build_and_test build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake -DARMHF_SYSROOT="$sysroot" \
    -DPROVISOR_BENCH=OFF
fi
if [ "${PROVISOR_SKIP_VM:-0}" != 1 ]; then
  echo "== the emulated ARM phone =="
  PHONE_VM_CUTS=${PHONE_VM_CUTS:-4} bash scripts/phone-vm.sh
fi
