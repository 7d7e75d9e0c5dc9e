#!/usr/bin/env bash
# Builds the demo host (and the libraries it loads, nothing else) and runs it against the simulated quote
# service, in a fresh folder laid out as a terminal's:
#   build/demo-run/run/{dravikcfg.dat, ini/}   and   build/demo-run/userdata/log/
# Arguments are passed to the demo (see kelquote_demo --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh release -- kelquote_demo >/dev/null
top=$(pwd)
run=build/demo-run
rm -rf "$run"
mkdir -p "$run/run/ini" "$run/userdata/log"
cp config/dravikcfg.dat "$run/run/dravikcfg.dat"
cd "$run/run"
status=0
"$top/build/release/bin/kelquote_demo" "$@" || status=$?
echo "(log: $top/$run/userdata/log/DravikData.log)"
exit $status
