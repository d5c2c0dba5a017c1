#!/usr/bin/env bash
# Wake-ups of an idle daemon: the voluntary context switches of all its threads over a minute (or
# the seconds given), after its power-on run and after the plug-and-play window has closed. Every
# switch of a blocked thread back to running is one wake-up; the target is at most one a second.
# The daemon runs in a sandbox root and in a network namespace of its own (loopback up, the
# multicast range routed over it), so its SUBSCRIBE never leaves the machine; a phone application
# stand-in answers its talk query. Prints the figure with the date.
#
# Figures (x86-64 development VM, 2 cores shared with other builds):
#   2026-11-25, before: 219 switches in 20 s = 10.95 wake-ups/s (100 ms console poll without a
#               terminal, 1 s registry-watcher time-out)
#   2026-11-25, after:  0 switches in 60 s = 0.00 wake-ups/s (4 threads, all blocked without time-out)
#
# usage: bench/idle_wakeups.sh [build dir] [seconds]
set -euo pipefail
build=$(realpath "${1:-build}")
seconds=${2:-60}
if [ -z "${IDLE_BENCH_IN_NETNS:-}" ]; then
  exec env IDLE_BENCH_IN_NETNS=1 unshare -rn bash -c \
    'ip link set lo up && ip route add 224.0.0.0/4 dev lo && exec "$0" "$@"' "$0" "$build" "$seconds"
fi
[ -x "$build/provisor" ] && [ -x "$build/msgctl" ] || { echo "no $build/provisor: build first" >&2; exit 1; }
source_dir=$(cd "$(dirname "$0")/.." && pwd)

# shellcheck source=bench/lib.sh
source "$source_dir/bench/lib.sh"

mkdir -p "$work/config/system" "$work/host" "$work/phone/resource"
cp "$source_dir/data/autopTranslator.xml" "$work/phone/resource/"
printf '[device]\nmac = 001565aabbcc\nip = 127.0.0.1\nnetwork_state = 2\n' >"$work/host/device.ini"
printf '[AutoProvision]\nbEnablePNP = 1\nbEnablePoweron = 0\n' >"$work/config/system/system.ini"

PROVISOR_ROOT=$work "$build/msgctl" listen app_vpPhone --reply 1 >"$work/phone.log" 2>&1 &
pids+=($!)
PROVISOR_ROOT=$work "$build/provisor" </dev/null >"$work/autop.log" 2>&1 &
daemon=$!
pids+=($daemon)

wait_for_log() {
  for _ in $(seq 600); do grep -q "$1" "$work/autop.log" && return 0; sleep 0.1; done
  echo "the daemon never logged: $1" >&2
  exit 1
}
wait_for_log "<<<<<< Autoprovision End >>>>>>"
wait_for_log "Stop port monitor"

switches() { awk '/^voluntary_ctxt_switches/ { sum += $2 } END { print sum }' /proc/"$daemon"/task/*/status; }
threads=$(ls /proc/"$daemon"/task | wc -l)
before=$(switches)
sleep "$seconds"
after=$(switches)
awk -v n=$((after - before)) -v s="$seconds" -v t="$threads" -v d="$(date -u +%Y-%m-%d)" 'BEGIN {
  printf "%s: idle daemon, %d threads: %d voluntary context switches in %d s = %.2f wake-ups/s\n", d, t, n, s, n / s }'
