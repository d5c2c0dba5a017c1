#!/usr/bin/env bash
# A fleet of N phones (default 200) against one provisioning server on loopback: N daemons, each in
# its own sandbox root with its own MAC, one nginx logging every request with a millisecond time
# stamp, and one process standing in for the phone and screen applications of every root
# (bench/fleet_phone.py). Scenarios, in one run:
#   - power cut: all N daemons started at once, with the defaults and with nPowerOnRandomDelay = 60:
#     peak requests per second and the time until the last phone reported its applied files;
#   - quiet second round: every phone asked for a run again with nothing changed on the server:
#     requests and bytes served, first with what each phone kept of earlier answers removed (full
#     downloads), then with it (conditional downloads: the server answers 304);
#   - weekly moments: N daemons booted in the same second (the fake clock starts them all at the
#     same moment) with one weekly window of 6 hours: distinct moments drawn; "before" is the same
#     draw seeded with the time alone (build/bench_fleet_moments);
#   - cost: total RSS, proportional set size and CPU time of the N daemons after the power cut.
# Writes a table to standard output and, beside it, the requests per second of both power cuts as
# a PNG (gnuplot). Run as root, every daemon runs under a user id of its own hundred (61000 + i / 100),
# so that a thousand daemons stay within the per-user limit of inotify instances (128) without
# taking those of the user who runs the tests.
#
# Figures (2026-11-25, shared 2-core development VM; the README's table has them all):
#   N = 200:  power cut peak 253 requests/s, all applied after 18.3 s; spread over 60 s: peak 24/s,
#             all applied after 74.3 s; weekly 1 distinct moment before, 199 after; PSS 2.6 MB each
#   N = 1000: power cut peak 372/s, 512 of 1000 runs failed (the clients saturate two cores);
#             spread: peak 135/s, all 1000 applied after 135.2 s; weekly 1 before, 979 after;
#             RSS 14.5 MB, PSS 2.4 MB and 4 threads per idle daemon
#
# usage: bench/fleet.sh [N] [build dir] [output dir]    (output dir default: build/fleet)
set -euo pipefail
phones=${1:-200}
build=$(realpath "${2:-build}")
out=$(realpath -m "${3:-$build/fleet}")
source_dir=$(cd "$(dirname "$0")/.." && pwd)
for program in provisor bench_fleet_moments autoptool; do
  [ -x "$build/$program" ] || { echo "no $build/$program: build first" >&2; exit 1; }
done
command -v gnuplot >/dev/null || { echo "no gnuplot: run scripts/install-deps.sh" >&2; exit 1; }
mkdir -p "$out"

# shellcheck source=bench/lib.sh
source "$source_dir/bench/lib.sh"
ulimit -n "$(ulimit -Hn)"
chmod 755 "$work"
stand_in=$source_dir/bench/fleet_phone.py
python=/usr/bin/python3  # Debian's: starts in a fraction of the time of a wrapped one
[ -x "$python" ] || python=python3
settle_seconds=${FLEET_SETTLE_SECONDS:-900}  # how long one scenario may take at most

mac_of() { printf '001565%06x' "$1"; }
as_root=0
[ "$(id -u)" -eq 0 ] && as_root=1

# --- the server --------------------------------------------------------------------------------
http_port=$(free_port)
url="http://127.0.0.1:$http_port/prov/"
mkdir -p "$work/www/prov"
cat >"$work/nginx.conf" <<CONF
master_process off;
worker_rlimit_nofile 8192;
error_log $work/error.log;
pid $work/nginx.pid;
events { worker_connections 4096; }
http {
  log_format fleet '\$msec \$status \$body_bytes_sent \$request_uri';
  access_log $work/access.log fleet;
  client_body_temp_path $work/body;
  proxy_temp_path $work/proxy;
  fastcgi_temp_path $work/fastcgi;
  uwsgi_temp_path $work/uwsgi;
  scgi_temp_path $work/scgi;
  default_type application/octet-stream;
  server { listen 127.0.0.1:$http_port backlog=4096; root $work/www; }
}
CONF
/usr/sbin/nginx -p "$work" -c "$work/nginx.conf" -g 'daemon off;' >"$work/nginx.out" 2>&1 &
pids+=($!)
wait_port "$http_port" || { echo "nginx did not start" >&2; cat "$work/nginx.out" >&2; exit 1; }

# What the server publishes: the office's common file with a dial plan, and one file per phone.
{
  # Settings that restart the phone (network) are left out: a restart ends the daemon on the host.
  grep -v '^network\.' "$source_dir/data/demo/common.cfg"
  echo "dialplan.replace_rule.url = ${url}DialPlan.xml"
} >"$work/www/prov/common.cfg"
{
  echo '<?xml version="1.0" encoding="UTF-8"?>'
  echo '<DialRule>'
  for rule in $(seq 1 20); do echo "  <Data Prefix=\"9$rule\" Replace=\"00$rule\" LineID=\"1\"/>"; done
  echo '</DialRule>'
} >"$work/www/prov/DialPlan.xml"
for i in $(seq 0 $((phones - 1))); do
  sed "s/2001/$((3000 + i))/g; s/Front desk/Desk $i/g" "$source_dir/data/demo/001565aabbcc.cfg" \
    >"$work/www/prov/$(mac_of "$i").cfg"
done
chmod -R a+rX "$work/www"

# --- the phones ----------------------------------------------------------------------------------
roots_file=$work/roots
for i in $(seq 0 $((phones - 1))); do printf '%s/phones/p%05d\n' "$work" "$i"; done >"$roots_file"

# Fresh roots: the translation table, the MAC, section AutoProvision as given.
make_roots() {
  rm -rf "$work/phones"
  mkdir -p "$work/phones"
  cp "$source_dir/data/autopTranslator.xml" "$work/table.xml"
  local i=0 root
  while read -r root; do
    mkdir -p "$root/config/system" "$root/phone/resource" "$root/host" "$root/tmp" "$root/config/user"
    cp -l "$work/table.xml" "$root/phone/resource/autopTranslator.xml"
    printf '[device]\nmac = %s\nip = 127.0.0.1\nnetwork_state = 2\n' "$(mac_of "$i")" >"$root/host/device.ini"
    printf '[AutoProvision]\n%b' "$1" >"$root/config/system/system.ini"
    [ $as_root -eq 1 ] && chown -R $((61000 + i / 100)):$((61000 + i / 100)) "$root"
    i=$((i + 1))
  done <"$roots_file"
}

stand_in_pid=""
start_stand_in() {
  : >"$work/results"
  "$python" "$stand_in" serve "$roots_file" "$work/results" >"$work/stand_in.out" 2>&1 &
  stand_in_pid=$!
  pids+=("$stand_in_pid")
  for _ in $(seq 600); do grep -q ready "$work/stand_in.out" && return 0; sleep 0.1; done
  echo "the application stand-in did not start" >&2
  exit 1
}
stop_stand_in() { kill "$stand_in_pid" 2>/dev/null || true; wait "$stand_in_pid" 2>/dev/null || true; }

daemon_pids=()
launcher_pid=""
# Starts all N daemons at once (bench/fleet_launch.py forks them and stays their parent); $@ is
# extra environment.
start_daemons() {
  rm -f "$work/daemon.pids"
  "$python" "$source_dir/bench/fleet_launch.py" "$roots_file" "$work/daemon.pids" "$build/provisor" "$@" &
  launcher_pid=$!
  pids+=("$launcher_pid")
  while [ ! -f "$work/daemon.pids" ]; do
    kill -0 "$launcher_pid" 2>/dev/null || { echo "the launcher failed" >&2; exit 1; }
    sleep 0.05
  done
  readarray -t daemon_pids <"$work/daemon.pids"
  pids+=("${daemon_pids[@]}")
}
stop_daemons() {
  kill -TERM "${daemon_pids[@]}" 2>/dev/null || true
  wait "$launcher_pid" 2>/dev/null || true
  daemon_pids=()
}

# Waits until the results file holds $1 lines, the settle time passed or no daemon is left.
wait_results() {
  local deadline=$((SECONDS + settle_seconds)) pid alive
  while [ "$(wc -l <"$work/results")" -lt "$1" ] && [ $SECONDS -lt $deadline ]; do
    sleep 0.2
    alive=0
    for pid in "${daemon_pids[@]}"; do kill -0 "$pid" 2>/dev/null && { alive=1; break; }; done
    [ $alive -eq 1 ] || { echo "every daemon has ended" >&2; return 0; }
  done
}

# Requests of the access log after line $1, as "seconds since $2 (ms)" per request.
request_seconds() { tail -n +$(($1 + 1)) "$work/access.log" | awk -v t0="$2" '{ printf "%d\n", ($1 * 1000 - t0) / 1000 }'; }

# Total RSS and PSS (kB) and CPU seconds of the running daemons.
daemon_cost() {
  local rss=0 pss=0 ticks=0 pid v
  for pid in "${daemon_pids[@]}"; do
    v=$(awk '/^VmRSS/ { print $2 }' /proc/"$pid"/status 2>/dev/null || echo 0)
    rss=$((rss + ${v:-0}))
    v=$(awk '/^Pss:/ { print $2 }' /proc/"$pid"/smaps_rollup 2>/dev/null || echo 0)
    pss=$((pss + ${v:-0}))
    v=$(awk '{ print $14 + $15 }' /proc/"$pid"/stat 2>/dev/null || echo 0)
    ticks=$((ticks + ${v:-0}))
  done
  echo "$rss $pss $(awk -v t="$ticks" -v hz="$(getconf CLK_TCK)" 'BEGIN { printf "%.1f", t / hz }')"
}

# One power cut: fresh roots with the given keys, every daemon started at once. Fills the globals
# peak_rps, requests, last_applied_s, applied, failed; the per-second counts go to $2.
power_cut() {
  local keys=$1 rate_file=$2
  make_roots "bEnablePoweron = 1\nstrCommName = common.cfg\nstrServerURL = $url\n$keys"
  start_stand_in
  local mark t0 t1
  mark=$(wc -l <"$work/access.log")
  start_daemons
  read -r t0 t1 <"$work/daemon.pids.times"
  launch_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.2f", (b - a) / 1000 }')
  wait_results "$phones"
  request_seconds "$mark" "$t0" | sort -n | uniq -c | awk '{ print $2, $1 }' >"$rate_file"
  peak_rps=$(awk 'BEGIN { m = 0 } $2 > m { m = $2 } END { print m }' "$rate_file")
  requests=$(($(wc -l <"$work/access.log") - mark))
  applied=$(awk '$3 == 1' "$work/results" | wc -l)
  failed=$(awk '$3 != 1' "$work/results" | wc -l)
  last_applied_s=$(awk -v t0="$t0" '$3 == 1 && $2 > m { m = $2 } END { printf "%.1f", (m - t0) / 1000 }' "$work/results")
  causes=$(failure_causes)
  first_request_s=$(head -1 "$rate_file" | awk '{ print $1 }')
}

# The last warning or error line of each phone whose run failed, counted: why the runs failed.
failure_causes() {
  awk '$3 != 1 { print $1 }' "$work/results" | sort -un | while read -r i; do
    grep -E '\] (WAR|ERR) ' "$(sed -n "$((i + 1))p" "$roots_file")/autop.log" | tail -1 | sed 's/^\[[^]]*\] //'
  done | sort | uniq -c | sort -rn | head -3 | awk '{ $1 = $1 " x"; print }' | paste -sd ';' -
}

# The quiet round without conditional downloads: what each phone kept of earlier answers (the
# validators and bytes under /config/provisor.d/cache) is removed first, so every file comes whole.
quiet_round_full() {
  while read -r phone_root; do rm -rf "$phone_root/config/provisor.d/cache"; done <"$roots_file"
  quiet_round
}

# Every phone asked for a run again, nothing changed on the server: requests and bytes served.
quiet_round() {
  local before mark
  before=$(wc -l <"$work/results")
  mark=$(wc -l <"$work/access.log")
  "$python" "$stand_in" post "$roots_file" 0xa0000
  wait_results $((before + phones))
  tail -n +$((mark + 1)) "$work/access.log" | awk '{ n++; b += $3 } END { printf "%d %d\n", n, b }'
}

echo "fleet of $phones phones, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, $(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)"

# --- power cut with the defaults, then the quiet round, then the cost of idle daemons -----------
power_cut "" "$work/rate-default"
default_row="$peak_rps $requests $last_applied_s $applied $failed $launch_s ${first_request_s:-0}"
default_causes=$causes
read -r quiet_requests quiet_bytes < <(quiet_round_full)
read -r conditional_requests conditional_bytes < <(quiet_round)
read -r full_requests full_bytes < <(awk '{ n++; b += $3 } END { printf "%d %d\n", n, b }' "$work/access.log")
sleep 2  # let the last runs' threads settle before the cost is read
read -r rss_kb pss_kb cpu_s < <(daemon_cost)
threads=$(for pid in "${daemon_pids[@]}"; do ls /proc/"$pid"/task 2>/dev/null | wc -l; done | awk '{ s += $1 } END { print s }')
stop_daemons
stop_stand_in

# --- power cut spread over a minute ---------------------------------------------------------------
power_cut "nPowerOnRandomDelay = 60\n" "$work/rate-spread"
spread_row="$peak_rps $requests $last_applied_s $applied $failed $launch_s ${first_request_s:-0}"
spread_causes=$causes
stop_daemons
stop_stand_in

# --- weekly moments, all booted in the same (fake) second -----------------------------------------
make_roots "bEnableWeekly = 1\nstrWeeklyMask = 0123456\nstrWeeklyBeginTime = 00:00\nstrWeeklyEndTime = 06:00\n"
start_stand_in
start_daemons PROVISOR_FAKE_CLOCK=1
marker="Weekly AutoProvision will active at : "
# On the fake clock a daemon's weekly timer fires at once and again for every next day: each daemon
# is stopped (SIGSTOP) as soon as it has logged its first moment, so that the ones still starting
# get the processors.
deadline=$((SECONDS + settle_seconds))
while :; do
  drawn=0
  while read -r log; do
    n=${log%/autop.log}
    kill -STOP "${daemon_pids[$((10#${n##*/p}))]}" 2>/dev/null || true
    drawn=$((drawn + 1))
  done < <(grep -l "$marker" "$work"/phones/*/autop.log)
  [ $drawn -lt "$phones" ] && [ $SECONDS -lt $deadline ] || break
  sleep 0.2
done
kill -TERM "${daemon_pids[@]}" 2>/dev/null || true
kill -CONT "${daemon_pids[@]}" 2>/dev/null || true
# The first moment each daemon drew: on the fake clock its timer fires at once and the next day's
# moment follows.
weekly_after=$(for log in "$work"/phones/*/autop.log; do grep -m1 "$marker" "$log"; done | sed "s/.*$marker//" |
  cut -c12- | sort -u | wc -l)
stop_daemons
stop_stand_in
weekly_before=$(PROVISOR_ROOT="" "$build/bench_fleet_moments" "$phones" 2>&1 >/dev/null | awk -F'[: ]+' '/^time only/ { print $3 }')

# --- the table and the picture --------------------------------------------------------------------
read -r d_peak d_requests d_last d_applied d_failed d_launch d_first <<<"$default_row"
read -r s_peak s_requests s_last s_applied s_failed s_launch s_first <<<"$spread_row"
cat <<TABLE

| scenario | figure |
|---|---|
| power cut, defaults (500 ms) | peak $d_peak requests/s, $d_requests requests, last phone applied after $d_last s ($d_applied applied, $d_failed failed; every daemon running after $d_launch s, first request after $d_first s) |
| power cut, nPowerOnRandomDelay 60 | peak $s_peak requests/s (target at most $(awk -v n="$phones" 'BEGIN { printf "%.1f", 3 * n / 60 }')), $s_requests requests, last phone applied after $s_last s ($s_applied applied, $s_failed failed; every daemon running after $s_launch s, first request after $s_first s) |
| quiet second round, full downloads | $quiet_requests requests, $quiet_bytes bytes |
| quiet second round, conditional downloads | $conditional_requests requests, $conditional_bytes bytes |
| weekly moments of $phones phones booted in one second, window 00:00-06:00 | before (time only): $weekly_before distinct; after (time, MAC, process id): $weekly_after distinct |
| $phones idle daemons after their run | RSS $((rss_kb / 1024)) MiB in all ($((rss_kb / phones)) kB each), PSS $((pss_kb / 1024)) MiB ($((pss_kb / phones)) kB each), $threads threads, CPU $cpu_s s in all |
TABLE
[ -z "$default_causes" ] || echo "failed runs, defaults: $default_causes"
[ -z "$spread_causes" ] || echo "failed runs, spread: $spread_causes"

# One line a second from the start on: seconds, requests with the defaults, with the spread.
awk 'FNR == 1 { f++ } { r[f, $1] = $2; if ($1 > m) m = $1 }
     END { for (s = 0; s <= m; s++) printf "%d %d %d\n", s, r[1, s], r[2, s] }' \
  "$work/rate-default" "$work/rate-spread" >"$out/fleet-$phones.dat"
gnuplot <<PLOT
set terminal pngcairo size 900,420
set output "$out/fleet-$phones.png"
set title "Power cut: $phones phones against one server, requests per second"
set xlabel "seconds after the daemons were started"
set ylabel "requests per second"
set grid
plot "$out/fleet-$phones.dat" using 1:2 with steps title "defaults (500 ms)", \
     "$out/fleet-$phones.dat" using 1:3 with steps title "nPowerOnRandomDelay 60"
PLOT
echo
echo "picture: $out/fleet-$phones.png"
