#!/usr/bin/env bash
# Runs a command beside a throw-away PostgreSQL server for the tests:
#   scripts/pg-test-server.sh <command...>
# The server lives in a temporary folder, belongs to an unprivileged user
# (postgres, since initdb refuses root), listens only on a Unix socket there
# and on a free loopback port, and stops when the command ends, also on
# failure. The command finds it through KELQUOTE_TEST_PG_URL (and
# KELQUOTE_TEST_PG_ADMIN_URL, the same server's maintenance database).
# KELQUOTE_PG_OPTIONS adds server settings ("-c shared_buffers=1GB ...").
set -euo pipefail
bin=${KELQUOTE_PG_BIN:-/usr/lib/postgresql/15/bin}
[ -x "$bin/initdb" ] || { echo "pg-test-server: no PostgreSQL in $bin (apt-get install postgresql)" >&2; exit 1; }
user=postgres
if [ "$(id -u)" -ne 0 ]; then user=$(id -un); fi
as_user() { if [ "$(id -u)" -eq 0 ]; then runuser -u "$user" -- "$@"; else "$@"; fi; }

dir=$(mktemp -d /tmp/kq-pg-XXXXXX)
chown "$user" "$dir"
port=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
stop() {
  as_user "$bin/pg_ctl" -D "$dir/data" -m immediate stop >/dev/null 2>&1 || true
  rm -rf "$dir"
}
trap stop EXIT
as_user "$bin/initdb" -D "$dir/data" -U "$user" -A trust -E UTF8 >/dev/null
as_user "$bin/pg_ctl" -D "$dir/data" -l "$dir/log" -w \
  -o "-c listen_addresses=127.0.0.1 -p $port -k $dir ${KELQUOTE_PG_OPTIONS:-}" \
  start >/dev/null
as_user "$bin/createdb" -h "$dir" -p "$port" -U "$user" kelquote_test
export KELQUOTE_TEST_PG_URL="postgresql://$user@127.0.0.1:$port/kelquote_test"
export KELQUOTE_TEST_PG_ADMIN_URL="postgresql://$user@127.0.0.1:$port/postgres"
export KELQUOTE_TEST_PG_DATA="$dir/data"
"$@"
