# Shared set-up of the shell benchmarks: sourced after `build` and `runs` are set. Gives $autoptool,
# a throw-away $work directory removed at exit (with every process id pushed onto `pids` killed),
# and free_port / wait_port for the loopback servers.
autoptool=$(realpath "$build/autoptool")
[ -x "$autoptool" ] || { echo "no $autoptool: build first" >&2; exit 1; }

work=$(mktemp -d /tmp/provisor-bench-XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
wait_port() { for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.05; done; return 1; }

# nginx serving $work/www on a free loopback port ($http_port); the argument is its access_log
# directive and what goes with it (for example "off").
start_nginx() {
  http_port=$(free_port)
  cat >"$work/nginx.conf" <<CONF
master_process off;
error_log $work/error.log;
pid $work/nginx.pid;
events { worker_connections 64; }
http {
  $1
  client_body_temp_path $work/body;
  proxy_temp_path $work/proxy;
  fastcgi_temp_path $work/fastcgi;
  default_type application/octet-stream;
  server { listen 127.0.0.1:$http_port; root $work/www; }
}
CONF
  /usr/sbin/nginx -p "$work" -c "$work/nginx.conf" -g 'daemon off;' >"$work/nginx.out" 2>&1 &
  pids+=($!)
}
