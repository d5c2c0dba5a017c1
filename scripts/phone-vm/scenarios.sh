# The scenarios of scripts/phone-vm.sh, sourced by it. Each prints one result line and returns 0 when
# it holds. Files a server or an administrator would make are made here by independent tools:
# openssl (keys, signatures), Python (the ring tone, the firmware header).

# Guest uptime and host time of one console line "phone-vm: <what> at N s".
# The console has serial line ends ("\r\n").
console_figure() { tr -d '\r' < "$1" | sed -n "s/^phone-vm: $2 at \([0-9.]*\) s.*/\1/p" | head -1; }
console_rss() { tr -d '\r' < "$1" | sed -n 's/^phone-vm: rss idle \([0-9]*\) kB peak \([0-9]*\) kB$/\1 \2/p' | head -1; }
now() { date +%s.%N; }
elapsed() { python3 -c "print('%.2f' % ($2 - $1))"; }

result() {
  local number=$1 name=$2 verdict=$3 detail=$4
  echo "phone-vm: scenario $number ($name): $verdict${detail:+ - $detail}"
  [ "$verdict" = ok ]
}

# Version 1 of the published files: a common file with a setting of an object that asks for a
# restart (network.*), and a per-device file with a SIP line and a web login.
publish_v1() {
  mkdir -p "$work/www/prov"
  cp "$top/data/demo/common.cfg" "$work/www/prov/common.cfg"
  cat > "$work/www/prov/$vm_mac.cfg" <<'CFG'
#!version:1.0.0.1
account.1.enable = 1
account.1.label = Front desk
account.1.display_name = Front Desk
account.1.auth_name = 2001
account.1.user_name = 2001
account.1.password = fd-2001-secret
security.user_password = admin:vm-pass-1
CFG
}

# Version 2: many settings of many INI files change, a ring tone is installed, the web password
# changes; no protected value changes (their texts differ on every write, so the cut checks compare
# files exactly) and nothing asks for a restart.
publish_v2() {
  local i
  {
    echo '#!version:1.0.0.1'
    echo 'local_time.time_zone = +2'
    echo 'local_time.time_zone_name = Eastern European Time'
    echo 'phone_setting.backlight_time = 120'
    for i in $(seq 1 30); do
      echo "linekey.$i.type = 15"
      echo "linekey.$i.line = 1"
      echo "linekey.$i.label = Key $i after the change"
    done
    for i in $(seq 1 14); do echo "programablekey.$i.type = 0"; done
    for i in $(seq 2 8); do
      echo "account.$i.enable = 1"
      echo "account.$i.label = Line $i"
      echo "account.$i.sip_server_host = 127.0.0.1"
    done
    echo "ringtone.url = http://10.0.2.100/res/Ring9.wav"
  } > "$work/www/prov/common.cfg"
  cat > "$work/www/prov/$vm_mac.cfg" <<'CFG'
#!version:1.0.0.1
account.1.label = Front desk, second floor
security.user_password = admin:vm-pass-2
CFG
  mkdir -p "$work/www/res"
  python3 - "$work/www/res/Ring9.wav" <<'PY'
import math, struct, sys, wave
with wave.open(sys.argv[1], "wb") as w:
    w.setnchannels(1); w.setsampwidth(2); w.setframerate(8000)
    w.writeframes(b"".join(struct.pack("<h", int(8000 * math.sin(i / 8.0))) for i in range(8000 * 3)))
PY
}

make_keys_and_seed() {
  local seed=$work/seed
  rm -rf "$seed"
  cp -a "$here/phone-vm/seed" "$seed"
  cp -a "$work/stage/phone/." "$seed/phone/"
  mkdir -p "$seed/host" "$seed/valdrun/config" "$seed/phone/keys"
  openssl genpkey -algorithm ed25519 -out "$work/firmware-key.pem" 2> /dev/null
  openssl pkey -in "$work/firmware-key.pem" -pubout -out "$seed/phone/keys/firmware.pem"
  publish_v1
  make_disk "$seed" "$work/disk0.img"
}

# Boots DISK and records when the daemon's first run began (host and guest clocks).
boot_and_wait_run() {
  local disk=$1 console=$2
  boot "$disk" "$console"
  wait_console "$console" "Receive Pnp AutoProvision request" "$boot_limit" || return 1
  run_seen=$(now)
}

scenario_power_on() {
  local console=$work/boot1.console
  cp --sparse=always "$work/disk0.img" "$work/disk.img"
  if ! boot_and_wait_run "$work/disk.img" "$console"; then
    power_cut
    result 1 "power-on provisioning, real reboot" FAIL "no run began ($console)"
    return 1
  fi
  first_run_host=$(elapsed "$vm_started" "$run_seen")
  if ! wait_exit "$boot_limit"; then
    result 1 "power-on provisioning, real reboot" FAIL "the machine did not restart within $boot_limit s"
    return 1
  fi
  vm_pid=""
  first_run_guest=$(console_figure "$console" "first run began")
  if grep -q "Reboot by syscall" "$console" && grep -q "reboot: Restarting system" "$console"; then
    result 1 "power-on provisioning, real reboot" ok "run began ${first_run_host} s after start, reboot system call, QEMU ended"
  else
    result 1 "power-on provisioning, real reboot" FAIL "no restart by the system call in $console"
  fi
}

# Boots DISK until the first run is over (and with MARK until the daemon idles), then pulls the power.
boot_until_idle() {
  local disk=$1 console=$2 mark=${3:-"phone-vm: idle"}
  boot "$disk" "$console"
  wait_console "$console" "$mark" "$boot_limit"
  local status=$?
  power_cut
  vm_pid=""
  return $status
}

scenario_unchanged() {
  local console=$work/boot2.console name="unchanged files, no reboot, same settings as the host build"
  if ! boot_until_idle "$work/disk.img" "$console"; then
    result 2 "$name" FAIL "the run did not end with the daemon idle ($console)"
    return 1
  fi
  read -r rss_idle rss_peak < <(console_rss "$console")
  local unchanged
  unchanged=$(grep -c "MD5 is same as before" "$console" || true)
  if [ "$unchanged" -ne 2 ] || grep -q "To reboot !!" "$console"; then
    result 2 "$name" FAIL "$unchanged of 2 files found unchanged, reboot: $(grep -c 'To reboot !!' "$console" || true)"
    return 1
  fi
  read_disk "$work/disk.img" "$work/after-boot2"
  local host_root=$work/host-root
  rm -rf "$host_root" && cp -a "$work/seed" "$host_root"
  printf '[device]\nmac = %s\nip = 127.0.0.1\n' "$vm_mac" > "$host_root/host/device.ini"
  PROVISOR_ROOT=$host_root "$top/build/autoptool" provision "http://127.0.0.1:$port/prov/" > "$work/host-run.log" 2>&1 || true
  if python3 "$here/phone-vm/compare.py" same "$work/after-boot2" "$host_root" > "$work/compare-host.txt"; then
    result 2 "$name" ok "both files unchanged, no reboot, $(find "$work/after-boot2/config" -type f | wc -l) files as the host build wrote them"
  else
    result 2 "$name" FAIL "$(head -3 "$work/compare-host.txt" | tr '\n' ' ')"
  fi
}

# One cut: a fresh copy of the state before the run, the power pulled DELAY seconds after the run
# began, the files checked; then a boot that finishes the run, checked again.
cuts_done=0
cuts_in_writes=0
torn=0
incomplete=0
one_cut() {
  local i=$1 delay=$2 image=$work/cut.img console=$work/cut-$1.console
  cp --sparse=always "$work/state-old.img" "$image"
  boot_and_wait_run "$image" "$console" || { power_cut; echo "cut $i: no run began"; incomplete=$((incomplete + 1)); return; }
  sleep "$delay"
  power_cut
  vm_pid=""
  cuts_done=$((cuts_done + 1))
  read_disk "$image" "$work/after-cut"
  local verdict
  if ! verdict=$(python3 "$here/phone-vm/compare.py" cut "$work/state-old" "$work/state-new" "$work/after-cut"); then
    torn=$((torn + 1))
    echo "cut $i after $delay s: $(echo "$verdict" | tr '\n' ' ')(files kept in $work/torn-$i)"
    cp -a "$work/after-cut" "$work/torn-$i"
    return
  fi
  # Inside the writes: some changes made but not all, or a writer's temporary on the disk.
  local summary made changed temps
  summary=$(echo "$verdict" | tail -1)
  read -r _ _ _ made _ changed _ _ temps _ <<< "$summary"
  [ "$made" -gt 0 ] && [ "$made" -lt "$changed" ] || [ "$temps" -gt 0 ] && cuts_in_writes=$((cuts_in_writes + 1))
  # The power goes as soon as the run has ended: what it wrote is on the disk by then.
  if ! boot_until_idle "$image" "$console.next" "phone-vm: first run ended"; then
    incomplete=$((incomplete + 1))
    echo "cut $i after $delay s: the next run did not finish"
    return
  fi
  read_disk "$image" "$work/after-next"
  if ! python3 "$here/phone-vm/compare.py" same "$work/after-next" "$work/state-new" > "$work/cut-$i.same" ||
    ! python3 "$here/phone-vm/compare.py" temporaries "$work/after-next" > "$work/cut-$i.temporaries"; then
    incomplete=$((incomplete + 1))
    echo "cut $i after $delay s: incomplete after the next run: $(cat "$work/cut-$i.same" "$work/cut-$i.temporaries" | tr '\n' ' ')"
  fi
}

scenario_power_cuts() {
  local name="power cuts during a run" console=$work/reference.console
  cp --sparse=always "$work/disk.img" "$work/state-old.img"
  read_disk "$work/state-old.img" "$work/state-old"
  publish_v2
  # The uncut run gives the new state, the length of the run and where in it the writes begin.
  cp --sparse=always "$work/state-old.img" "$work/reference.img"
  local writes_from="" run_seconds=""
  if boot_and_wait_run "$work/reference.img" "$console" &&
    wait_console "$console" "***** Upgrade CFG File" "$boot_limit"; then
    writes_from=$(elapsed "$run_seen" "$(now)")
    wait_console "$console" "Upgrade finished" "$boot_limit" && run_seconds=$(elapsed "$run_seen" "$(now)")
  fi
  if [ -z "$run_seconds" ]; then
    power_cut
    result 3 "$name" FAIL "the uncut run did not finish ($console)"
    return 1
  fi
  wait_console "$console" "phone-vm: idle" "$boot_limit" || true
  power_cut
  vm_pid=""
  local idle peak
  read -r idle peak < <(console_rss "$console")
  [ -n "$peak" ] && [ "$peak" -gt "${rss_peak:-0}" ] && rss_peak=$peak
  read_disk "$work/reference.img" "$work/state-new"
  if python3 "$here/phone-vm/compare.py" same "$work/state-old" "$work/state-new" > /dev/null ||
    ! grep -q "Ring9.wav" < <(find "$work/state-new/config" -name 'Ring9.wav*'); then
    result 3 "$name" FAIL "the uncut run changed nothing or installed no ring tone"
    return 1
  fi
  # Every other cut falls anywhere in the run; the others within the part where the uncut run wrote
  # (from its first settings file to its result), where a cut can tear something.
  echo "phone-vm: the run takes about $run_seconds s from its start to its result, writing from $writes_from s"
  local i delay
  for i in $(seq 1 "$cuts_wanted"); do
    if [ $((i % 2)) -eq 1 ]; then
      delay=$(python3 -c "import random; print('%.3f' % random.uniform(0, $run_seconds))")
    else
      delay=$(python3 -c "import random; print('%.3f' % random.uniform($writes_from, $run_seconds))")
    fi
    one_cut "$i" "$delay"
  done
  if [ "$torn" -eq 0 ] && [ "$incomplete" -eq 0 ] && [ "$cuts_done" -eq "$cuts_wanted" ]; then
    result 3 "$name" ok "$cuts_done cuts, $cuts_in_writes inside the run's writes, none torn, each completed by the next run"
  else
    result 3 "$name" FAIL "$cuts_done cuts, $torn torn, $incomplete not completed by the next boot's run"
  fi
}

# A signed firmware image as a maker's build server makes one: the header by Python, the Ed25519
# signature over its first 276 bytes by openssl. The payload of the emulated firmware is its version
# file, which the emulated boot loader puts in place (scripts/phone-vm/init).
make_firmware_image() {
  local version=$1 out=$2 payload=$work/fw-payload head=$work/fw-head
  printf '[version]\nFIRMWARE_VERSION = %s\n' "$version" > "$payload"
  python3 - "$payload" "$version" "$head" <<'PY'
import hashlib, struct, sys
payload = open(sys.argv[1], "rb").read()
field = lambda text, size: text.encode().ljust(size, b"\0")
head = (b"PVFWIMG\0" + struct.pack(">HH", 1, 340) + field("duna", 32) + field("RM410P,RM410T", 128)
        + field(sys.argv[2], 64) + struct.pack(">Q", len(payload)) + hashlib.sha256(payload).digest())
assert len(head) == 276
open(sys.argv[3], "wb").write(head)
PY
  openssl pkeyutl -sign -rawin -inkey "$work/firmware-key.pem" -in "$head" -out "$head.sig"
  cat "$head" "$head.sig" "$payload" > "$out"
}

scenario_firmware() {
  local name="firmware, safe mode, boot loader install" image=$work/fw.img
  mkdir -p "$work/www/fw"
  make_firmware_image 3.1.0.2 "$work/www/fw/fw.rom"
  echo "firmware.url = http://10.0.2.100/fw/fw.rom" >> "$work/www/prov/common.cfg"
  cp --sparse=always "$work/reference.img" "$image"
  local console=$work/fw-boot1.console
  boot "$image" "$console"
  if ! wait_exit "$boot_limit" || ! grep -q "To set userenv\[BOOTMODE\] to value\[safemode\]" "$console" ||
    ! grep -q "reboot: Restarting system" "$console"; then
    vm_pid=""
    result 4 "$name" FAIL "the newer image did not arm safe mode and restart ($console)"
    return 1
  fi
  console=$work/fw-boot2.console
  boot "$image" "$console"
  if ! wait_exit "$boot_limit" || ! grep -q "phone-vm: boot loader: installed FIRMWARE_VERSION = 3.1.0.2" "$console"; then
    vm_pid=""
    result 4 "$name" FAIL "the boot loader did not install the image ($console)"
    return 1
  fi
  vm_pid=""
  console=$work/fw-boot3.console
  : > "$work/nginx/access.log"
  if ! boot_until_idle "$image" "$console"; then
    result 4 "$name" FAIL "boot 3 did not finish its run ($console)"
    return 1
  fi
  read_disk "$image" "$work/after-firmware"
  local whole_downloads
  whole_downloads=$(grep -c '"GET /fw/fw.rom HTTP/1.1" 200' "$work/nginx/access.log" || true)
  if grep -q "phone-vm: firmware FIRMWARE_VERSION = 3.1.0.2" "$console" &&
    grep -q "the running firmware, nothing to upgrade" "$console" && ! grep -q "To reboot !!" "$console" &&
    ! grep -q "BOOTMODE *= *safemode" "$work/after-firmware/host/bootenv.ini" && [ "$whole_downloads" -eq 0 ]; then
    result 4 "$name" ok "safe mode armed, restart, installed by the boot loader; boot 3 runs 3.1.0.2, nothing installed again"
  else
    result 4 "$name" FAIL "boot 3 did not run the new version alone ($console, $whole_downloads whole downloads)"
  fi
}
