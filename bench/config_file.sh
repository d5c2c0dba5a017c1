#!/usr/bin/env bash
# Processes a generated 2 MiB and a 200 KiB configuration file end to end, each size in its own
# process so that its peak resident size is its own, and prints time, items per second, peak RSS
# and how the cost grows between the two sizes.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DPROVISOR_TESTS=OFF >/dev/null
cmake --build build-bench -j "$(nproc 2>/dev/null || echo 2)" --target bench_config_file >/dev/null

run() {
  build-bench/bench_config_file --benchmark_filter="BM_ConfigFile/$1/" --benchmark_format=csv 2>/dev/null |
    awk -F, '/BM_ConfigFile/ { printf "%s %s %s %s\n", $3, $(NF-2), $(NF-1), $NF }'
}
small=$(run 204800)
large=$(run 2097088)
printf '%s\n%s\n' "200KiB $small" "2MiB $large" | awk '
  BEGIN { printf "%-8s %12s %12s %8s %14s\n", "size", "wall (ms)", "items/s", "keys", "peak RSS MiB" }
  { printf "%-8s %12.1f %12.0f %8d %14.1f\n", $1, $2, $3, $4, $5; t[NR] = $2 }
  END { printf "cost ratio 2MiB / 200KiB: %.1fx (targets: at most 12x; 2 MiB under 1000 ms and 32 MiB)\n", t[2] / t[1] }'
