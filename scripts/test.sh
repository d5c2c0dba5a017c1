#!/usr/bin/env bash
# Installs the dependencies, builds the project twice (normal, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole test suite in both builds.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)

build_and_test() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600)
}

echo "== normal build =="
build_and_test build
echo "== sanitizer build (ASan + UBSan) =="
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
build_and_test build-asan -DPROVISOR_SANITIZE=ON -DPROVISOR_BENCH=OFF
