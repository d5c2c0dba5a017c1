#!/usr/bin/env bash
# Installs everything the build, the tests, the demo and the benchmarks need on Debian 12.
# Idempotent: packages already present are left as they are.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libssl-dev libtinyxml2-dev libcurl4-openssl-dev libcrypt-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  tftpd-hpa vsftpd nginx-light openssl curl sip-tester
  python3 perl-base procps iproute2 ca-certificates
  libarchive-dev imagemagick
  gnuplot-nox
  qemu-system-arm cpio e2fsprogs
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The packaged servers start system-wide instances on install; the tests start their own on free
# loopback ports, so the system ones are stopped to keep ports 21, 69 and 80 out of the way.
for svc in tftpd-hpa vsftpd nginx; do
  if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet "$svc" 2>/dev/null; then
    systemctl stop "$svc" || true
  elif command -v service >/dev/null 2>&1; then
    service "$svc" stop >/dev/null 2>&1 || true
  fi
done
exit 0
