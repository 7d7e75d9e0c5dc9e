#!/usr/bin/env bash
# Runs kelquote_bus_bench against a NATS server with JetStream started here
# on a free loopback port (stopped on the way out):
#   bus/bench/bus_bench.sh [BIN] [bench arguments...]
set -uo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
bin=${1:-$src/build/release/bin}
[ $# -gt 0 ] && shift
command -v nats-server >/dev/null || "$src/scripts/install-deps.sh" nats-server >/dev/null
tmp=$(mktemp -d)
port=
for _ in $(seq 50); do
  p=$((20000 + RANDOM % 40000))
  (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { port=$p; break; }
done
nats-server -a 127.0.0.1 -p "$port" -js -sd "$tmp/js" >"$tmp/server.log" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null; rm -rf "$tmp"' EXIT
for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
"$bin/kelquote_bus_bench" --nats "nats://127.0.0.1:$port" "$@"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
