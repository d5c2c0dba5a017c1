#!/usr/bin/env bash
# Transfer speed of the service's transports against curl: the same 8 MiB file from the same local
# servers (nginx for HTTP, vsftpd for FTP, tftpd-hpa for TFTP), fetched RUNS times by each, and per
# protocol the median wall time of each and the ratio autoptool / curl.
#
#   bench/transfer.sh [BUILD_DIR] [RUNS]     (defaults: build, 7)
#
# Targets: HTTP and FTP within 1.1x of curl; TFTP (512-byte lock-step, as curl's default) no slower
# than curl's TFTP.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
runs=${2:-7}
. bench/lib.sh

mkdir -p "$work/files" "$work/www"
head -c $((8 * 1024 * 1024)) /dev/urandom > "$work/files/big.bin"
chmod 644 "$work/files/big.bin"
cp "$work/files/big.bin" "$work/www/big.bin"

tftp_port=$(free_port)
/usr/sbin/in.tftpd --foreground --listen --user root --address "127.0.0.1:$tftp_port" --secure "$work/files" \
  >"$work/tftpd.log" 2>&1 &
pids+=($!)

ftp_port=$(free_port)
cat >"$work/vsftpd.conf" <<EOF
listen=YES
listen_ipv6=NO
listen_address=127.0.0.1
listen_port=$ftp_port
background=NO
anonymous_enable=YES
no_anon_password=YES
anon_root=$work/files
local_enable=NO
write_enable=NO
pasv_enable=YES
seccomp_sandbox=NO
secure_chroot_dir=/var/run/vsftpd/empty
xferlog_enable=NO
EOF
mkdir -p /var/run/vsftpd/empty
/usr/sbin/vsftpd "$work/vsftpd.conf" >"$work/vsftpd.log" 2>&1 &
pids+=($!)

start_nginx "access_log off;"

wait_port "$ftp_port" && wait_port "$http_port" || { echo "servers did not start" >&2; exit 1; }
sleep 0.2

# Wall time in seconds of one run of a command that writes $work/out, checked against the file.
run_time() {
  rm -f "$work/out"
  local start=$EPOCHREALTIME
  "$@" >"$work/last.log" 2>&1 || { echo "failed: $*" >&2; tail -5 "$work/last.log" >&2; return 1; }
  local end=$EPOCHREALTIME
  cmp -s "$work/out" "$work/files/big.bin" || { echo "wrong bytes: $*" >&2; return 1; }
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }'
}

median() { printf '%s\n' "$@" | sort -g | awk '{ a[NR] = $1 } END { printf "%.4f", a[int((NR + 1) / 2)] }'; }

printf '%-6s %12s %12s %8s   (%d runs each, interleaved, 8 MiB)\n' protocol autoptool curl ratio "$runs"
for proto in http ftp tftp; do
  case $proto in
    http) url="http://127.0.0.1:$http_port/big.bin" ;;
    ftp) url="ftp://127.0.0.1:$ftp_port/big.bin" ;;
    tftp) url="tftp://127.0.0.1:$tftp_port/big.bin" ;;
  esac
  ours=()
  theirs=()
  # Alternating runs share whatever else the machine is doing at the time.
  for _ in $(seq "$runs"); do
    ours+=("$(run_time "$autoptool" fetch "$url" "$work/out")")
    theirs+=("$(run_time curl -s -o "$work/out" "$url")")
  done
  a=$(median "${ours[@]}")
  b=$(median "${theirs[@]}")
  ratio=$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.2f", a / b }')
  printf '%-6s %11.4fs %11.4fs %8s\n' "$proto" "$a" "$b" "$ratio"
done
