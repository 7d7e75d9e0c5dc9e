#!/usr/bin/env bash
# Builds the demo host (and the libraries it loads, nothing else) and runs it against the simulated quote
# service, in a fresh folder laid out as a terminal's:
#   build/demo-run/run/{dravikcfg.dat, ini/}   and   build/demo-run/userdata/log/
# Arguments are passed to the demo (see kelquote_demo --help).
#   scripts/run-demo.sh --python   the Python session (examples/python/demo.py)
#                                  instead; its chart goes to build/demo-run/closes.png
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "--python" ]; then
  shift
  scripts/install-deps.sh pybind11-dev python3-dev python3-numpy python3-pandas python3-matplotlib
  scripts/build.sh release -DKELQUOTE_PYTHON=ON -- kelquote_python DataApi uaAuth >/dev/null
  rm -rf build/demo-run
  mkdir -p build/demo-run
  # Debian's python3, whatever PATH puts first; the run folder is made by the package.
  PYTHONPATH=build/release/python /usr/bin/python3 examples/python/demo.py \
    --home build/demo-run/home --png build/demo-run/closes.png "$@"
  echo "(log: $(pwd)/build/demo-run/home/userdata/log/DravikData.log)"
  exit 0
fi
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
