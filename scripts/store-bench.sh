#!/usr/bin/env bash
# The store's benchmark: level-1 rows written per second into SQLite and
# into a PostgreSQL server started for the run, then the library's delivery
# to a counting host alone and beside the recorder. Prints the load first:
# the machine may be shared.
#   scripts/store-bench.sh [ROWS] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
rows=${1:-1000000}
seconds=${2:-10}
scripts/install-deps.sh libsqlite3-dev libpq-dev postgresql
scripts/build.sh release -DKELQUOTE_TESTS=ON -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache \
  -- kelquote_store_bench >/dev/null
bench=$(pwd)/build/release/bin/kelquote_store_bench
work=$(mktemp -d /tmp/kq-store-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
"$bench" write "sqlite://$work/bench.db" "$rows"
# The server set up for ingestion: a buffer cache that holds the tables'
# hot pages, compressed WAL, checkpoints far apart.
KELQUOTE_PG_OPTIONS="-c shared_buffers=1GB -c max_wal_size=8GB -c checkpoint_timeout=30min -c wal_compression=on" \
  scripts/pg-test-server.sh bash -c "\"$bench\" write \"\$KELQUOTE_TEST_PG_URL\" $rows"
mkdir -p "$work/run/ini" "$work/userdata/log"
cp config/dravikcfg.dat "$work/run/"
(cd "$work/run" && TZ=Asia/Shanghai "$bench" side "sqlite://$work/side.db" "$seconds")
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
