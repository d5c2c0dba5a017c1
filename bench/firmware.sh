#!/usr/bin/env bash
# Firmware image checks over HTTP from loopback: the header check and the full verification of a
# 32 MiB signed image by the service's upgrade library (autoptool image verify URL), against
# `curl -o` followed by `sha256sum` of the same file, RUNS times each, interleaved; medians.
#
#   bench/firmware.sh [BUILD_DIR] [RUNS]     (defaults: build, 7)
#
# Targets: the header check moves under 64 KiB of the image (nginx's body bytes sent, whatever the
# image size); full verification within 1.3x of curl + sha256sum.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
runs=${2:-7}
. bench/lib.sh

# A throw-away device root with its own signing key pair.
root="$work/root"
mkdir -p "$root/phone/keys" "$root/host" "$work/www"
printf '[device]\nfamily = lyra\n' >"$root/host/device.ini"
openssl genpkey -algorithm ed25519 -out "$work/key.pem" 2>/dev/null
openssl pkey -in "$work/key.pem" -pubout -out "$root/phone/keys/firmware.pem"
head -c $((32 * 1024 * 1024)) /dev/urandom >"$work/payload.bin"
"$autoptool" image build --key "$work/key.pem" --family lyra --models QA5 --version 1.0 \
  "$work/payload.bin" "$work/www/fw.rom"
chmod 644 "$work/www/fw.rom"

start_nginx "log_format sent '\$body_bytes_sent';
  access_log $work/access.log sent;"
wait_port "$http_port" || { echo "nginx did not start" >&2; exit 1; }
url="http://127.0.0.1:$http_port/fw.rom"

run_time() {
  local start=$EPOCHREALTIME
  "$@" >"$work/last.log" 2>&1 || { echo "failed: $*" >&2; tail -5 "$work/last.log" >&2; return 1; }
  local end=$EPOCHREALTIME
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }'
}
median() { printf '%s\n' "$@" | sort -g | awk '{ a[NR] = $1 } END { printf "%.4f", a[int((NR + 1) / 2)] }'; }
curl_and_sum() { curl -s -o "$work/out" "$1" && sha256sum "$work/out" >/dev/null; }
export -f curl_and_sum
export work

header=()
full=()
reference=()
: >"$work/access.log"
for _ in $(seq "$runs"); do
  header+=("$(PROVISOR_ROOT=$root run_time "$autoptool" image verify --header-only "$url")")
done
header_bytes=$(sort -n "$work/access.log" | tail -1)
for _ in $(seq "$runs"); do
  full+=("$(PROVISOR_ROOT=$root run_time "$autoptool" image verify "$url")")
  reference+=("$(run_time bash -c 'curl_and_sum "$0"' "$url")")
done
h=$(median "${header[@]}")
a=$(median "${full[@]}")
b=$(median "${reference[@]}")
printf 'image: 32 MiB over HTTP from loopback, %d runs each (medians)\n' "$runs"
printf 'header check:        %8.4fs, at most %s body bytes sent by the server\n' "$h" "$header_bytes"
printf 'full verification:   %8.4fs\n' "$a"
printf 'curl -o + sha256sum: %8.4fs\n' "$b"
printf 'ratio:               %8.2f\n' "$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.2f", a / b }')"
