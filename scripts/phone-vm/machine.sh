# The emulated phone's parts, sourced by scripts/phone-vm.sh: the root file system (initramfs), the
# persistent disk, the provisioning server on the host's loopback and one boot of the machine.
# Every function works below $work; nothing here touches the host outside it.

# Kernel modules the initramfs loads, in an order where each comes after what it needs: the
# virtio transport of -M virt, the disk, the network card, ext4. crc32c is asked for by ext4 at mount
# through the crypto layer, not as a symbol dependency, so it is named here.
vm_modules=(virtio_mmio virtio_blk failover net_failover virtio_net crc16 mbcache jbd2 crc32c_generic ext4)

# Adds the shared libraries a program needs, and theirs, from the sysroot to the root folder.
copy_libraries() {
  local sysroot=$1 root=$2 file=$3 lib found dir
  for lib in $(readelf -d "$file" 2>/dev/null | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p'); do
    [ -e "$root/lib/$lib" ] && continue
    found=""
    for dir in lib/arm-linux-gnueabihf usr/lib/arm-linux-gnueabihf lib usr/lib; do
      [ -e "$sysroot/$dir/$lib" ] && { found=$sysroot/$dir/$lib; break; }
    done
    [ -n "$found" ] || { echo "library $lib of $file is not in the sysroot" >&2; return 1; }
    cp -L "$found" "$root/lib/$lib"
    copy_libraries "$sysroot" "$root" "$root/lib/$lib"
  done
}

# The phone kernel's /proc/hwversion, built against the fetched kernel's headers.
build_hwversion_module() {
  local kbuild=$1 dir=$work/hwversion
  rm -rf "$dir" && cp -a "$here/phone-vm/hwversion" "$dir"
  make -s -C "$(cat "$kbuild/headers")" M="$dir" ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf- \
    DEB_BUILD_ARCH=amd64 DEB_HOST_ARCH=armhf DEB_HOST_GNU_TYPE=arm-linux-gnueabihf modules > "$work/hwversion.log" 2>&1 ||
    { cat "$work/hwversion.log" >&2; return 1; }
}

# The initramfs: busybox, the kernel modules, the installed phone build with its libraries, init.
make_initramfs() {
  local stage=$1 kernel_root=$2 sysroot=$3 out=$4
  local root=$work/initramfs m f kver
  rm -rf "$root"
  mkdir -p "$root"/{bin,sbin,lib,usr/bin,usr/sbin,etc/phone-vm,lib/phone-vm,proc,sys,dev,tmp}
  cp "$kernel_root/bin/busybox" "$root/bin/busybox"
  cp "$here/phone-vm/init" "$root/init"
  cp "$here/phone-vm/udhcpc.script" "$root/etc/phone-vm/udhcpc.script"
  chmod 755 "$root/init" "$root/etc/phone-vm/udhcpc.script"
  kver=$(ls "$kernel_root/lib/modules")
  : > "$root/lib/phone-vm/modules.order"
  for m in "${vm_modules[@]}"; do
    f=$(find "$kernel_root/lib/modules/$kver" -name "$m.ko" | head -1)
    [ -n "$f" ] || { echo "kernel module $m not found" >&2; return 1; }
    cp "$f" "$root/lib/phone-vm/"
    echo "$m" >> "$root/lib/phone-vm/modules.order"
  done
  cp "$work/hwversion/hwversion.ko" "$root/lib/phone-vm/"
  cp -a "$stage/usr/bin/." "$root/usr/bin/"
  for f in "$root"/usr/bin/*; do copy_libraries "$sysroot" "$root" "$f"; done
  cp -L "$sysroot/lib/ld-linux-armhf.so.3" "$root/lib/ld-linux-armhf.so.3"
  # A phone's image carries no debugging information: RAM is what the root file system costs.
  arm-linux-gnueabihf-strip --strip-unneeded "$root"/usr/bin/* "$root"/lib/*.so* 2>/dev/null || true
  (cd "$root" && find . -mindepth 1 | LC_ALL=C sort | cpio -o -H newc --quiet) | gzip -6 > "$out"
}

# The persistent disk: ext4 made from a seed folder, 64 MiB.
make_disk() {
  local seed=$1 out=$2
  rm -f "$out"
  mke2fs -q -t ext4 -L phone -d "$seed" "$out" 64M > /dev/null
}

# Copies the folders of the disk out to DIR, after replaying its journal on a copy as the kernel
# does at mount (debugfs alone reads the blocks as they are and would miss committed changes).
read_disk() {
  local image=$1 dir=$2 copy=$work/read-disk.img
  cp --sparse=always "$image" "$copy"
  e2fsck -E journal_only -y "$copy" > /dev/null 2>&1 || true
  rm -rf "$dir" && mkdir -p "$dir"
  local d
  for d in config phone host valdrun; do
    debugfs -R "rdump /$d $dir" "$copy" > /dev/null 2>&1 || true
  done
  rm -f "$copy"
}

# One nginx on a free loopback port serving $work/www; the guest reaches it as 10.0.2.100:80 through
# a relay that QEMU starts for each connection.
start_server() {
  cc -O2 -o "$work/relay" "$here/phone-vm/relay.c"
  mkdir -p "$work/www" "$work/nginx"
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  sed -e "s|@DIR@|$work/nginx|g" -e "s|@WWW@|$work/www|g" -e "s|@PORT@|$port|g" \
    "$here/phone-vm/nginx.conf" > "$work/nginx/nginx.conf"
  nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" -g 'daemon off;' &
  nginx_pid=$!
  local i
  for i in $(seq 100); do
    python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 0.2)" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "nginx did not start" >&2
  return 1
}

# Starts the machine on DISK with its console in FILE; sets vm_pid.
boot() {
  local disk=$1 console=$2
  qemu-system-arm -M virt -m 256 -nographic -no-reboot \
    -kernel "$kernel" -initrd "$initramfs" -append "console=ttyAMA0 panic=-1 quiet loglevel=4 hwversion=$vm_hwversion" \
    -drive "file=$disk,if=none,id=disk0,format=raw,cache=directsync" -device virtio-blk-device,drive=disk0 \
    -netdev "user,id=net0,restrict=on,net=10.0.2.0/24,dhcpstart=10.0.2.15,bootfile=http://10.0.2.100/prov/,guestfwd=tcp:10.0.2.100:80-cmd:$work/relay $port" \
    -device "virtio-net-device,netdev=net0,mac=$vm_mac_colons" \
    < /dev/null > "$console" 2>&1 &
  vm_pid=$!
  vm_started=$(date +%s.%N)
}

# Waits until FILE holds PATTERN (0), the machine ended (1) or SECONDS passed (2).
wait_console() {
  local console=$1 pattern=$2 limit=$3 start=$SECONDS
  while :; do
    grep -qF -- "$pattern" "$console" 2>/dev/null && return 0
    kill -0 "$vm_pid" 2>/dev/null || { grep -qF -- "$pattern" "$console" 2>/dev/null && return 0; return 1; }
    [ $((SECONDS - start)) -ge "$limit" ] && return 2
    sleep 0.1
  done
}

# Waits for the machine to end by itself; kills it after SECONDS (status 1 then).
wait_exit() {
  local limit=$1 start=$SECONDS
  while kill -0 "$vm_pid" 2>/dev/null; do
    if [ $((SECONDS - start)) -ge "$limit" ]; then
      kill -KILL "$vm_pid" 2>/dev/null || true
      wait "$vm_pid" 2>/dev/null || true
      return 1
    fi
    sleep 0.1
  done
  wait "$vm_pid" 2>/dev/null || true
  return 0
}

# Pulls the power: SIGKILL, nothing of QEMU's own runs after it.
power_cut() {
  kill -KILL "$vm_pid" 2>/dev/null || true
  wait "$vm_pid" 2>/dev/null || true
}
