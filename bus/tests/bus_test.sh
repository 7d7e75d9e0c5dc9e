#!/usr/bin/env bash
# The bus against real NATS servers on loopback, started here and stopped on
# every way out:
#   bus_test.sh functional BIN   one server with JetStream and credentials;
#       a gateway over the simulated service; two hosts at once (level-1
#       snapshots in order, daily bars under mapped ids); the subscriptions
#       counted (the service told once, stopped when the last host leaves);
#       a host killed is taken as dead and its subscriptions end; a host
#       that asks for what it missed gets it from the stream; the gateway
#       restarted: a host hears the connection lost and restored (as the
#       library reports them to its host) and keeps receiving; a malformed
#       request is refused with a log line; two gateways splitting the
#       markets, each asked only about its own, one host on both.
#   bus_test.sh tls BIN          one server that asks for TLS with client
#       certificates (a CA made here): a host with the CA and its certificate
#       receives, one without them is refused.
#   bus_test.sh failover BIN     a three-server cluster with the stream on
#       three replicas; the server of the gateway and the hosts killed
#       mid-session: the hosts keep receiving, in order, nothing twice.
# BIN holds kelquote_gateway, kelquote_bus_probe, bus/libDataApi.so.
set -uo pipefail
mode=$1
bin=$(cd "$2" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
command -v nats-server >/dev/null || "$src/scripts/install-deps.sh" nats-server >/dev/null
tmp=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$tmp"/*.log; do echo "--- $f"; tail -n 30 "$f"; done
  exit 1
}
free_port() {  # a loopback port nothing answers on (bounded tries)
  local p
  for _ in $(seq 50); do
    p=$((20000 + RANDOM % 40000))
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { echo "$p"; return 0; }
  done
  return 1
}
wait_port() {  # port: up to 10 s
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}
wait_line() {  # file pattern: up to 15 s
  for _ in $(seq 150); do
    grep -q -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

mkdir -p "$tmp/run/ini" "$tmp/userdata/log"
cp "$src/config/dravikcfg.dat" "$tmp/run/"
export KELQUOTE_BUS_USER=kq KELQUOTE_BUS_PASSWORD=s3cret-$$
export KELQUOTE_BUS_NAME=t$$
export TZ=${TZ:-CST-8}
gw_pid=
start_gateway() {
  (cd "$tmp/run" && exec "$bin/kelquote_gateway" --nats "$urls" --sim-interval 20 --sim-clock 0 100000) \
    >>"$tmp/gateway.log" 2>&1 &
  gw_pid=$!
  pids+=("$gw_pid")
  wait_line "$tmp/gateway.log" "connected to the quote service" || fail "the gateway did not connect"
}
probe() {  # log-name args...
  local name=$1
  shift
  (cd "$tmp/run" && LD_LIBRARY_PATH="$bin/bus" exec "$bin/kelquote_bus_probe" "$@") >"$tmp/$name.log" 2>&1
}
count() { grep -c -- "$2" "$1" 2>/dev/null || true; }

if [ "$mode" = functional ]; then
  port=$(free_port)
  cat >"$tmp/server.conf" <<CONF
listen: 127.0.0.1:$port
jetstream { store_dir: "$tmp/js" }
authorization { user: kq, password: "s3cret-$$" }
CONF
  nats-server -c "$tmp/server.conf" >"$tmp/server.log" 2>&1 &
  pids+=($!)
  wait_port "$port" || fail "nats-server did not start"
  urls=nats://127.0.0.1:$port

  # Without the password nobody gets in.
  (cd "$tmp/run" && KELQUOTE_BUS_PASSWORD=wrong KELQUOTE_BUS_URL=$urls LD_LIBRARY_PATH="$bin/bus" \
    "$bin/kelquote_bus_probe" --seconds 1) >"$tmp/intruder.log" 2>&1 && fail "a host without the password logged in"
  grep -q "login failed" "$tmp/intruder.log" || fail "the refused host did not report a failed login"

  start_gateway
  export KELQUOTE_BUS_URL=$urls
  test_start=$(date +%s%3N)
  # Two hosts at once on the same instruments, one asking for bars.
  probe hostA --seconds 6 --codes SH:600000,SZ:000001 --min 20 --history &
  a=$!
  probe hostB --seconds 3 --codes SH:600000,SH:600004 --min 10 &
  b=$!
  wait $b || fail "host B"
  wait $a || fail "host A"
  # SH 600000 was asked for by both hosts: the service heard of it once,
  # and of its end once, when the last of the two left.
  [ "$(count "$tmp/gateway.log" joined)" -ge 2 ] || fail "two hosts did not join"
  [ "$(count "$tmp/gateway.log" "service: SubscribeL1.* 600000.SH")" = 1 ] || fail "SH 600000 subscribed at the service more than once"
  [ "$(count "$tmp/gateway.log" "service: UnsubscribeL1.* 600000.SH")" = 1 ] || fail "SH 600000 not ended once at the service"
  [ "$(count "$tmp/gateway.log" "service: SubscribeL1.* 600004.SH")" = 1 ] || fail "SH 600004 not subscribed at the service"

  # A host killed: the gateway takes it as dead and its subscriptions end.
  probe victim --seconds 30 --codes SZ:000002 &
  victim=$!
  pids+=("$victim")
  wait_line "$tmp/victim.log" "logged in" || fail "victim login"
  sleep 1
  pkill -KILL -P "$victim" 2>/dev/null; kill -KILL "$victim" 2>/dev/null
  wait_line "$tmp/gateway.log" "silent, taken as dead; 1 subscriptions ended" || fail "the dead host was not noticed"

  # What a host missed since a time comes from the stream before the live records.
  KELQUOTE_BUS_SINCE=$test_start probe late --seconds 2 --codes SH:600000 --min 20 || fail "late host"
  grep -Eq "caught up [1-9]" "$tmp/late.log" || fail "the late host caught nothing up"

  # A malformed request is refused with a line, the gateway goes on.
  body='\x05\x00\x00\x00garbage'
  exec 3<>"/dev/tcp/127.0.0.1/$port" || fail "could not reach the server"
  printf 'CONNECT {"user":"kq","pass":"%s","verbose":false}\r\nPUB %s.req.any.evil _INBOX.x 11\r\n'"$body"'\r\nPING\r\n' \
    "$KELQUOTE_BUS_PASSWORD" "$KELQUOTE_BUS_NAME" >&3
  read -r -t 5 _ <&3  # INFO
  read -r -t 5 _ <&3  # PONG
  exec 3<&-
  wait_line "$tmp/gateway.log" 'request from "evil" refused' || fail "the malformed request was not refused"

  # The gateway restarted mid-session: lost, restored, still receiving.
  probe survivor --seconds 14 --codes SH:600000 --min 30 --expect-restore &
  s=$!
  wait_line "$tmp/survivor.log" "logged in" || fail "survivor login"
  sleep 2
  kill -TERM "$gw_pid"; wait "$gw_pid"
  sleep 3
  start_gateway
  wait $s || fail "the host did not come through the gateway's restart"
  # What the host's callback hears is what a live vendor's lost-then-restored
  # connection gives: 1 (lost, reconnecting), then 0 (restored), nothing else.
  reports=$(grep -o "connection report [0-9]*" "$tmp/survivor.log" | awk '{printf "%s ", $3}')
  [ "$reports" = "1 0 " ] || fail "the host heard the connection reports \"$reports\", not \"1 0 \""

  # Two gateways split the markets (a bus name of their own: the one above
  # kept every market in its stream): SH's also answers what names no
  # market, SZ's keeps to SZ. One host on instruments of both.
  kill -TERM "$gw_pid"; wait "$gw_pid"
  export KELQUOTE_BUS_NAME=s$$
  for g in sh sz; do
    mkdir -p "$tmp/$g/run/ini" "$tmp/$g/userdata/log"
    cp "$src/config/dravikcfg.dat" "$tmp/$g/run/"
  done
  (cd "$tmp/sh/run" && exec "$bin/kelquote_gateway" --nats "$urls" --gateway gsh --markets SH --common \
    --sim-interval 20 --sim-clock 0 100000) >"$tmp/gateway-sh.log" 2>&1 &
  pids+=($!)
  (cd "$tmp/sz/run" && exec "$bin/kelquote_gateway" --nats "$urls" --gateway gsz --markets SZ \
    --sim-interval 20 --sim-clock 0 100000) >"$tmp/gateway-sz.log" 2>&1 &
  pids+=($!)
  for g in sh sz; do
    wait_line "$tmp/gateway-$g.log" "connected to the quote service" || fail "gateway $g did not connect"
  done
  # Bars of the SZ instrument come through SZ's gateway under mapped ids.
  probe split --seconds 4 --codes SZ:000001,SH:600000,SZ:000002 --min 20 --history || fail "the host of two gateways"
  for g in sh sz; do grep -q "joined" "$tmp/gateway-$g.log" || fail "the host did not join gateway $g"; done
  [ "$(count "$tmp/gateway-sh.log" "service: SubscribeL1 600000.SH -> 0")" = 1 ] || fail "SH not subscribed alone at SH's gateway"
  [ "$(count "$tmp/gateway-sz.log" "service: SubscribeL1 000001.SZ -> 0")" = 1 ] || fail "SZ 000001 not subscribed at SZ's gateway"
  [ "$(count "$tmp/gateway-sz.log" "service: SubscribeL1 000002.SZ -> 0")" = 1 ] || fail "SZ 000002 not subscribed at SZ's gateway"
  # Both gateways' replies to the one host, whole (chunks put together per gateway).
  grep -q "refused 0 " "$tmp/split.log" || fail "the host of two gateways refused messages"
  grep -q "\.SH" "$tmp/gateway-sz.log" && fail "SZ's gateway was asked about SH"
  grep -q "\.SZ" "$tmp/gateway-sh.log" && fail "SH's gateway was asked about SZ"
  echo "functional: ok"
  exit 0
fi

if [ "$mode" = failover ]; then
  ports=() cports=()
  for i in 1 2 3; do ports+=("$(free_port)"); cports+=("$(free_port)"); done
  routes="nats-route://127.0.0.1:${cports[0]},nats-route://127.0.0.1:${cports[1]},nats-route://127.0.0.1:${cports[2]}"
  spids=()
  for i in 0 1 2; do
    cat >"$tmp/s$i.conf" <<CONF
server_name: s$i
listen: 127.0.0.1:${ports[$i]}
jetstream { store_dir: "$tmp/js$i" }
authorization { user: kq, password: "s3cret-$$" }
cluster {
  name: kqtest
  listen: 127.0.0.1:${cports[$i]}
  routes: [ nats-route://127.0.0.1:${cports[0]}, nats-route://127.0.0.1:${cports[1]}, nats-route://127.0.0.1:${cports[2]} ]
}
CONF
    nats-server -c "$tmp/s$i.conf" >"$tmp/s$i.log" 2>&1 &
    spids+=($!)
    pids+=($!)
  done
  for i in 0 1 2; do wait_port "${ports[$i]}" || fail "server $i did not start"; done
  # The cluster elects its JetStream leader.
  for i in 0 1 2; do wait_line "$tmp/s$i.log" "JetStream cluster new metadata leader\|Self is new JetStream cluster metadata leader" && break; done
  urls="nats://127.0.0.1:${ports[0]},nats://127.0.0.1:${ports[1]},nats://127.0.0.1:${ports[2]}"
  export KELQUOTE_BUS_URL=$urls
  # Everyone on the first server while it lives, so that its death moves them all.
  printf 'randomize = false\n' >"$tmp/host.conf"
  export KELQUOTE_BUS_SETTINGS=$tmp/host.conf
  printf 'replicas = 3\nrandomize = false\n' >"$tmp/gateway.conf"
  (cd "$tmp/run" && exec "$bin/kelquote_gateway" --nats "$urls" --settings "$tmp/gateway.conf" --sim-interval 20 \
    --sim-clock 0 100000) >>"$tmp/gateway.log" 2>&1 &
  gw_pid=$!
  pids+=("$gw_pid")
  wait_line "$tmp/gateway.log" "connected to the quote service" || fail "the gateway did not connect"
  probe hostA --seconds 12 --codes SH:600000,SZ:000001 --min 100 &
  a=$!
  probe hostB --seconds 12 --codes SH:600000 --min 100 &
  b=$!
  wait_line "$tmp/hostA.log" "logged in" || fail "host A login"
  wait_line "$tmp/hostB.log" "logged in" || fail "host B login"
  sleep 3
  kill -KILL "${spids[0]}"
  wait $a || fail "host A through the failover"
  wait $b || fail "host B through the failover"
  grep -q "connection report 1" "$tmp/hostA.log" "$tmp/hostB.log" && fail "a host heard the connection lost"
  grep "bus:" "$tmp/hostA.log" "$tmp/hostB.log"
  echo "failover: ok"
  exit 0
fi
if [ "$mode" = tls ]; then
  command -v openssl >/dev/null || "$src/scripts/install-deps.sh" openssl >/dev/null
  cd "$tmp"
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=kq-test-ca -keyout ca.key -out ca.pem 2>/dev/null
  for who in server client; do
    openssl req -newkey rsa:2048 -nodes -subj "/CN=$who" -keyout $who.key -out $who.csr 2>/dev/null
    printf 'subjectAltName=IP:127.0.0.1\n' >$who.ext
    openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 -extfile $who.ext \
      -out $who.pem 2>/dev/null
  done
  cd - >/dev/null
  port=$(free_port)
  cat >"$tmp/server.conf" <<CONF
listen: 127.0.0.1:$port
jetstream { store_dir: "$tmp/js" }
authorization { user: kq, password: "s3cret-$$" }
tls { cert_file: "$tmp/server.pem", key_file: "$tmp/server.key", ca_file: "$tmp/ca.pem", verify: true }
CONF
  nats-server -c "$tmp/server.conf" >"$tmp/server.log" 2>&1 &
  pids+=($!)
  wait_port "$port" || fail "nats-server did not start"
  urls=tls://127.0.0.1:$port
  export KELQUOTE_BUS_URL=$urls
  (cd "$tmp/run" && LD_LIBRARY_PATH="$bin/bus" "$bin/kelquote_bus_probe" --seconds 1) >"$tmp/plain.log" 2>&1 \
    && fail "a host without TLS logged in"
  export KELQUOTE_BUS_TLS_CA=$tmp/ca.pem KELQUOTE_BUS_TLS_CERT=$tmp/client.pem KELQUOTE_BUS_TLS_KEY=$tmp/client.key
  start_gateway
  probe host --seconds 2 --codes SH:600000 --min 20 || fail "host over TLS"
  echo "tls: ok"
  exit 0
fi
echo "usage: bus_test.sh functional|tls|failover BIN" >&2
exit 2
