#!/usr/bin/env bash
# The translation table's costs: tables of 5, 20 and 50 MB in four shapes (flat, wide, deep-nested,
# many masks), each loaded in its own process (load time, MB/s, resident size added by the table
# after the load and at the peak, both also as a multiple of the file size; wall time is at the mercy
# of a busy machine, the process's CPU time is the steadier figure), then the reverse lookup
# of a table whose path holds 1 to 16 adjacent index masks (a key that resolves, and one that cannot).
#
# Measured on a shared 2-core x86-64 host (best of 3; CPU time, as wall time was 4-8x longer there):
#   resident size added by a loaded table, as a multiple of its file: 0.96-2.42 (flat 1.0, wide 2.4,
#   deep 1.5, masks 1.5), the same at 5, 20 and 50 MB; it was 19.6-45 (50 MB deep: 2.1 GiB).
#   peak while loading: 8.6-12.8x (the XML document: parsing alone peaks at about that); was 20.6-46x.
#   load rate: 10-18 MB/s of CPU time (was 0.5-3.7 MB/s wall); the XML parse alone runs at 21-34.
#   reverse lookup against adjacent masks, resolving / refused: 1 mask 1 / 2 us, 8 masks 47 / 183 us,
#   16 masks 0.4 / 1.0 ms; it was 4 / 4,293,550 us at 8 masks, ten times more for every mask added.
# Usage: bench/translation_table.sh [max masks, default 16] [sizes in MB, default "5 20 50"]
set -euo pipefail
cd "$(dirname "$0")/.."
max_masks=${1:-16}
sizes=${2:-5 20 50}
# $BENCH_BINARY: an already built bench_translation_table (say, of an older tree) instead of this one's.
bench=${BENCH_BINARY:-build-bench/bench_translation_table}
if [ -z "${BENCH_BINARY:-}" ]; then
  cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DPROVISOR_TESTS=OFF >/dev/null
  cmake --build build-bench -j2 --target bench_translation_table >/dev/null
fi

work=$(mktemp -d /tmp/provisor-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/config"
export PROVISOR_ROOT=$work

best_of_3() {  # prints the run with the shortest load time
  for _ in 1 2 3; do "$bench" load "$1"; done | sort -n | head -1
}

printf '%-6s %5s %8s %8s %8s %9s %8s %9s %8s %8s\n' shape MB "wall ms" "cpu ms" "MB/s" "MB/s cpu" \
  "RSS+ MiB" "x file" "peak+" "x file"
for size in $sizes; do
  for shape in flat wide deep masks; do
    python3 bench/translation_table.py table "$shape" $((size * 1000000)) "$work/config/t.xml"
    bytes=$(stat -c %s "$work/config/t.xml")
    read -r ms cpu before after peak _ < <(best_of_3 /config/t.xml)
    awk -v s="$shape" -v mb="$size" -v ms="$ms" -v cpu="$cpu" -v b="$before" -v a="$after" -v p="$peak" \
      -v f="$bytes" 'BEGIN {
        printf "%-6s %5d %8.0f %8.0f %8.1f %9.1f %8.1f %9.2f %8.1f %8.2f\n", s, mb, ms, cpu, f / 1e6 / (ms / 1000),
          f / 1e6 / (cpu / 1000), (a - b) / 1024, (a - b) * 1024 / f, (p - b) / 1024, (p - b) * 1024 / f }'
  done
done
rm -f "$work/config/t.xml"

printf '\n%-6s %14s %14s\n' masks "hit (us)" "miss (us)"
for masks in $(seq 1 "$max_masks"); do
  python3 bench/translation_table.py masks "$masks" "$work/config/m.xml"
  read -r hit miss < <("$bench" reverse "$masks" /config/m.xml)
  printf '%-6d %14.1f %14.1f\n' "$masks" "$hit" "$miss"
done
