#!/usr/bin/env bash
# One provisioning run end to end, in a throw-away sandbox root:
#   - an nginx on a free loopback port publishes a common file and an encrypted per-device file;
#   - `autoptool provision` runs the service's URL path against the sandbox: download, decrypt,
#     translate, apply to the INI files; a second run finds both files unchanged (MD5);
#   - the daemon starts in the sandbox, a stand-in application pushes a file and asks it to apply it;
#   - the daemon starts in normal mode with the server configured: it provisions by itself at
#     power-on, and again when the server's file changed and another application asks for a run;
#   - with plug-and-play on, a local sipp answers the phone's multicast SUBSCRIBE with a NOTIFY
#     naming another directory, and the daemon provisions from it (in a network namespace of its
#     own, because the phone's SIP ports 5059 and 5060 are fixed).
# Nothing outside the sandbox is touched; everything is stopped and removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

bash scripts/install-deps.sh >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target provisor msgctl autoptool >/dev/null

sandbox=$(mktemp -d /tmp/provisor-demo-XXXXXX)
chmod 755 "$sandbox"  # the web server's workers read the published files as another user
www=$sandbox/www
nginx_pid=""
daemon_pid=""
peer_pids=""
cleanup() {
  [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null || true
  for pid in $peer_pids; do kill "$pid" 2>/dev/null || true; done
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null || true
  sleep 0.2
  rm -rf "$sandbox"
}
trap cleanup EXIT

root=$sandbox/root
mac=001565aabbcc
export PROVISOR_ROOT=$root
mkdir -p "$root/config/system" "$root/phone/resource" "$root/host" "$root/tmp" "$www/prov"
printf '[device]\nmac = %s\nip = 127.0.0.1\n' "$mac" > "$root/host/device.ini"
cp data/autopTranslator.xml "$root/phone/resource/autopTranslator.xml"
cp data/demo/system.ini "$root/config/system/system.ini"
# The phone's picture-scaling script (wallpapers, contact photos); on the host it is ours.
mkdir -p "$root/phone/scripts" && cp platform/scripts/imageScale.sh "$root/phone/scripts/imageScale.sh"
mkdir -p "$root/config/user"
printf '[PhoneSetting]\nEnLock = 1\n' > "$root/config/user/user.ini"  # sensitive values are stored protected

echo "== publishing the configuration on a loopback web server"
cp data/demo/common.cfg "$www/prov/common.cfg"
# The per-device file travels encrypted with the key the phone has configured (strKeyAES16MAC).
build/autoptool encrypt frontdesk-key "data/demo/$mac.cfg" "$www/prov/$mac.cfg"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cat > "$sandbox/nginx.conf" <<CONF
worker_processes 1;
pid $sandbox/nginx.pid;
error_log $sandbox/nginx-error.log;
events { worker_connections 64; }
http {
  access_log $sandbox/nginx-access.log;
  client_body_temp_path $sandbox/tmp-body;
  proxy_temp_path $sandbox/tmp-proxy;
  fastcgi_temp_path $sandbox/tmp-fastcgi;
  uwsgi_temp_path $sandbox/tmp-uwsgi;
  scgi_temp_path $sandbox/tmp-scgi;
  server { listen 127.0.0.1:$port; root $www; }
}
CONF
nginx -p "$sandbox" -c "$sandbox/nginx.conf" -g 'daemon off;' &
nginx_pid=$!
for _ in $(seq 50); do curl -fs "http://127.0.0.1:$port/prov/common.cfg" >/dev/null && break; sleep 0.1; done
url="http://127.0.0.1:$port/prov/"
echo "   $url: common.cfg, $mac.cfg (encrypted)"

echo
echo "== the administrator checks the common file before publishing it"
build/autoptool check --table data/autopTranslator.xml data/demo/common.cfg | grep -v '^\['

echo
echo "== first provisioning run"
build/autoptool provision "$url"
echo
echo "-- what the phone's settings look like now"
for f in config/system/system.ini config/user/voip/sipAccount0.cfg config/user/vpm_linekey.cfg config/user/user.ini; do
  echo "--- /$f"
  cat "$root/$f"
done

echo
echo "== second run: nothing changed on the server"
build/autoptool provision "$url" | grep -E 'MD5|Autoprovision|Parse Finished' || true

echo
echo "== the daemon, and another application pushing settings to it"
mkdir -p "$root/tmp"
build/provisor -byzero > "$sandbox/autop.log" 2>&1 &
daemon_pid=$!
for _ in $(seq 50); do build/msgctl send provisor 0xa0001 0 0 >/dev/null 2>&1 && break; sleep 0.1; done
printf '#!version:1.0.0.1\naccount.1.label = Front desk (pushed)\n' > "$root/tmp/XML.cfg"
build/msgctl post provisor 0xa1003 0 0
echo "run state: $(build/msgctl send provisor 0xa0001 0 0)"
build/msgctl post provisor 0xa0003 0 0 --extra "front-desk"
build/msgctl send provisor 0xa0001 0 0 >/dev/null
kill -TERM "$daemon_pid"
wait "$daemon_pid" && echo "daemon ended with status 0"
daemon_pid=""
echo "--- daemon log"
cat "$sandbox/autop.log"
echo "--- /config/user/voip/sipAccount0.cfg"
cat "$root/config/user/voip/sipAccount0.cfg"
echo "--- boot environment"
cat "$root/host/bootenv.ini"

echo
echo "== the daemon provisions by itself"
# Stand-ins: the phone application (never in a call) and the screen, which sees the broadcasts.
build/msgctl listen app_vpPhone --reply 1 > "$sandbox/phone.log" 2>&1 &
peer_pids="$peer_pids $!"
build/msgctl listen app_vpScreen > "$sandbox/screen.log" 2>&1 &
peer_pids="$peer_pids $!"
sed -i "/^\[AutoProvision\]/a strServerURL = $url\nbEnablePoweron = 1" "$root/config/system/system.ini"
echo "   configured: strServerURL = $url, bEnablePoweron = 1"
sed -i 's/^phone_setting.backlight_time = .*/phone_setting.backlight_time = 30/' "$www/prov/common.cfg"
# A changed network setting restarts the phone after the run (recorded in host/actions.log, the
# daemon exits); the daemon's runs here leave it out so that the same daemon goes on.
sed -i '/^network\./d' "$www/prov/common.cfg"
wait_runs() {  # until the log holds $1 End lines
  for _ in $(seq 300); do
    [ "$(grep -c 'Autoprovision End' "$sandbox/autop2.log" 2>/dev/null)" -ge "$1" ] && return 0
    sleep 0.1
  done
  echo "no run finished" >&2
  return 1
}
build/provisor > "$sandbox/autop2.log" 2>&1 &
daemon_pid=$!
wait_runs 1
echo "-- power-on run:"
grep -E 'Launch (Upgrade|Config URL)|strReplaceURL|BackLightTime|Upgrade finished|Autoprovision (Begin|End)' "$sandbox/autop2.log"

echo
echo "-- the server's file changes and an application asks for a run (MSG_START_AUTO_PROVISION)"
sed -i 's/^phone_setting.backlight_time = .*/phone_setting.backlight_time = 45/' "$www/prov/common.cfg"
build/msgctl post provisor 0xa0000
wait_runs 2
grep -E 'Receive MSG_START_AUTO_PROVISION|BackLightTime|Upgrade finished' "$sandbox/autop2.log" | tail -3
echo "-- broadcasts the screen stand-in saw (0x10201 = result, lparam 1 = success):"
cat "$sandbox/screen.log"
echo "-- /config/user/user.ini"
cat "$root/config/user/user.ini"
kill -TERM "$daemon_pid"
wait "$daemon_pid" && echo "daemon ended with status 0"
daemon_pid=""

echo
echo "== plug-and-play: a local SIP server names the provisioning directory"
mkdir -p "$www/pnp"
cp "$www/prov/"* "$www/pnp/"
sed -i 's/^phone_setting.backlight_time = .*/phone_setting.backlight_time = 90/' "$www/pnp/common.cfg"
sed -i '/^bEnablePoweron/d; /^\[AutoProvision\]/a bEnablePNP = 1\nbEnablePoweron = 0' "$root/config/system/system.ini"
sed "s#^pid .*#pid $sandbox/nginx-pnp.pid;#; s#nginx-\(error\|access\)#nginx-pnp-\1#" \
  "$sandbox/nginx.conf" > "$sandbox/nginx-pnp.conf"
sed "s#@MAC@#$mac#; s#@URL@#http://127.0.0.1:$port/pnp/#" data/sipp/pnp-server.xml > "$sandbox/pnp-server.xml"
# Everything of this step runs inside the namespace: loopback, the multicast route, a web server
# publishing the same tree, sipp, the stand-ins and the daemon; all of it ends with the step.
pnp_step() {
  set -euo pipefail
  ip link set lo up
  ip route add 224.0.0.0/4 dev lo
  pids=""
  trap 'for p in $pids; do kill "$p" 2>/dev/null || true; done' EXIT
  nginx -p "$sandbox" -c "$sandbox/nginx-pnp.conf" -g 'daemon off;' &
  pids="$pids $!"
  # sipp listens on every address; a member of the group on loopback lets the SUBSCRIBE reach it.
  python3 -c 'import socket,time
s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP,socket.IP_ADD_MEMBERSHIP,socket.inet_aton("224.0.1.75")+socket.inet_aton("127.0.0.1"))
time.sleep(120)' &
  pids="$pids $!"
  build/msgctl listen app_vpPhone --reply 1 > "$sandbox/phone-pnp.log" 2>&1 &
  pids="$pids $!"
  (cd "$sandbox" && exec sipp -sf pnp-server.xml -i 0.0.0.0 -p 5060 -m 1 -nostdin -timeout 30s \
    -timeout_error > "$sandbox/sipp.log" 2>&1 </dev/null) &
  local sipp_pid=$!
  pids="$pids $sipp_pid"
  for _ in $(seq 100); do ss -Hlun 'sport = :5060' | grep -q . && curl -fs "http://127.0.0.1:$port/pnp/common.cfg" >/dev/null && break; sleep 0.1; done
  build/provisor > "$sandbox/autop3.log" 2>&1 &
  local daemon=$!
  pids="$pids $daemon"
  for _ in $(seq 300); do grep -q 'Provisor has done the PNP upgrade' "$sandbox/autop3.log" && break; sleep 0.1; done
  wait "$sipp_pid" && echo "-- sipp: SUBSCRIBE answered, NOTIFY sent and acknowledged by the phone"
  grep -E 'PNP Server IP|send SubScribe|URL = PNPManger|Post MSG_RESPOND_URL|Receive Pnp|BackLightTime|Upgrade finished|Autoprovision End|Provisor has done the PNP' "$sandbox/autop3.log"
  kill -TERM "$daemon"
  wait "$daemon" && echo "daemon ended with status 0"
}
export sandbox port
unshare -n bash -c "$(declare -f pnp_step); pnp_step"

echo
echo "demo finished; the sandbox $sandbox is removed"
