#!/usr/bin/env bash
# One configuration file provisioned end to end by `autoptool provision` of a local file, each run in
# a fresh sandbox root and its own process: a generated M7 file of about 2 MiB (about 80,000 keys
# over 20 INI files, each key's file another than the key before: the worst interleaving) and one of
# about 200 KiB. Beside every run, in the same loop, the log floor: bench_log_floor writing the run's
# captured log again, line for line, through the same logger (one write and flush per record).
# Prints wall time, processor time (user + system) and peak RSS (GNU time) of both, best of $RUNS
# (default 3), and the ratios. On a shared machine the wall time swings with the other load: the
# processor time, and the instruction counts that CALLGRIND=1 adds (slow: minutes), swing less.
#
# Figures (x86-64 development VM, 2 cores shared with about 8 other builds; best of 3 per sitting,
# several sittings; instruction counts from callgrind, user space only, so the kernel's part of the
# writes is not in them):
#   2 MiB, 79,212 keys, 475,469 log lines   wall ratio    cpu ratio   peak RSS   instructions run/floor
#     before streaming and the store work    1.73-2.04x    1.76x       29.6 MiB   2,922 M / 642 M
#     after                                  1.17-1.84x    1.21-1.27x  14.5 MiB   1,500 M / 611 M
#   200 KiB, 7,741 keys, 46,643 log lines
#     before                                 2.9-4.7x      2.31x       15.6 MiB     312 M / 64.6 M
#     after                                  1.7-3.1x      1.70-1.80x  14.4 MiB     173 M / 61.5 M
# The process alone (libraries, table) peaks at about 14.4 MiB with a one-key file; the small file's
# ratio is mostly start-up, which its short log cannot carry.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-bench
runs=${RUNS:-3}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DPROVISOR_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target autoptool bench_log_floor >/dev/null
source bench/lib.sh
floor=$(realpath "$build/bench_log_floor")

# Runs of one key per target file, the files taking turns; short values, so that the keys are many.
generate() {
  python3 - "$1" <<'PY'
import sys
size = int(sys.argv[1])
account = ["enable", "label", "display_name", "auth_name", "user_name", "sip_server_host", "sip_server_port",
           "expires", "transport", "outbound_host", "outbound_port", "bla_number", "auto_answer",
           "missed_calllog", "anonymous_call", "shared_line"]
files = [("account.%d." % line, account) for line in range(1, 17)]
files.append(("local_time.", ["time_zone", "time_zone_name", "ntp_server1", "ntp_server2", "interval",
                              "summer_time", "time_format", "date_format"]))
files.append(("phone_setting.", ["backlight_time", "active_backlight_level", "inactive_backlight_level",
                                 "contrast", "inter_digit_time", "predial_autodial", "auto_answer_delay"]))
files.append(("linekey.", ["%d.%s" % (k, i) for k in range(1, 31) for i in ("type", "line", "value", "label")]))
files.append(("programablekey.", ["%d.%s" % (k, i) for k in range(1, 15) for i in ("type", "line", "value", "label")]))
lines = ["#!version:1.0.0.1\n"]
length = len(lines[0])
cursor = [0] * len(files)
turn = 0
while True:
    prefix, items = files[turn % len(files)]
    line = "%s%s = %d\n" % (prefix, items[cursor[turn % len(files)] % len(items)], turn % 10)
    if length + len(line) > size:
        break
    cursor[turn % len(files)] += 1
    lines.append(line)
    length += len(line)
    turn += 1
sys.stdout.write("".join(lines))
PY
}

fresh_root() {
  rm -rf "$work/root"
  mkdir -p "$work/root/phone/resource" "$work/root/srv"
  cp data/autopTranslator.xml "$work/root/phone/resource/"
  cp "$work/$1.cfg" "$work/root/srv/bench.cfg"
}

# "<wall s> <peak KiB> <processor s>" of one command, its standard output into $1.
timed() {
  local out=$1
  shift
  /usr/bin/time -f '%e %M %U %S' -o "$work/time" "$@" >"$out"
  awk '{ printf "%s %s %.2f\n", $1, $2, $3 + $4 }' "$work/time"
}

best() { sort -n | head -1; }

instructions() {
  valgrind --tool=callgrind --callgrind-out-file="$work/cg.out" "$@" >/dev/null 2>&1
  awk '/^summary:/ { print $2 }' "$work/cg.out"
}

printf '%-8s %7s %9s | %6s %6s %7s | %7s %7s %9s | %6s %6s\n' size keys "log lines" "run s" "cpu s" "run MiB" \
  "floor s" "cpu s" "floor MiB" ratio "cpu"
for size in 204800 2097088; do
  name=cfg$size
  generate "$size" >"$work/$name.cfg"
  keys=$(($(wc -l <"$work/$name.cfg") - 1))
  : >"$work/run.times"
  : >"$work/floor.times"
  for _ in $(seq "$runs"); do
    fresh_root "$name"
    PROVISOR_ROOT="$work/root" timed "$work/autop.log" "$autoptool" provision /srv/bench.cfg >>"$work/run.times"
    timed "$work/floor.log" "$floor" "$work/autop.log" >>"$work/floor.times"
    cmp -s "$work/autop.log" "$work/floor.log" || { echo "the floor wrote another log than the run" >&2; exit 1; }
  done
  lines=$(wc -l <"$work/autop.log")
  run_s=$(cut -d' ' -f1 "$work/run.times" | best)
  run_kib=$(cut -d' ' -f2 "$work/run.times" | sort -n | tail -1)
  floor_s=$(cut -d' ' -f1 "$work/floor.times" | best)
  floor_kib=$(cut -d' ' -f2 "$work/floor.times" | sort -n | tail -1)
  run_cpu=$(cut -d' ' -f3 "$work/run.times" | best)
  floor_cpu=$(cut -d' ' -f3 "$work/floor.times" | best)
  awk -v s="$size" -v k="$keys" -v l="$lines" -v r="$run_s" -v rc="$run_cpu" -v rk="$run_kib" -v f="$floor_s" \
    -v fc="$floor_cpu" -v fk="$floor_kib" 'BEGIN {
      printf "%-8s %7d %9d | %6.2f %6.2f %7.1f | %7.2f %7.2f %9.1f | %5.2fx %5.2fx\n",
        s, k, l, r, rc, rk / 1024, f, fc, fk / 1024, r / f, rc / fc }'
  if [ "${CALLGRIND:-0}" = 1 ]; then
    fresh_root "$name"
    run_ir=$(PROVISOR_ROOT="$work/root" instructions "$autoptool" provision /srv/bench.cfg)
    floor_ir=$(instructions "$floor" "$work/autop.log")
    awk -v r="$run_ir" -v f="$floor_ir" \
      'BEGIN { printf "         instructions: run %.0f M, floor %.0f M, ratio %.2fx\n", r / 1e6, f / 1e6, r / f }'
  fi
done
echo "targets: the 2 MiB file within 1.3x of its log floor and under 24 MiB peak RSS"
