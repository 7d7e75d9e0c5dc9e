#!/usr/bin/env bash
# Builds the Debian packages into build/release/packages/:
#   libkelquote2     libkelquote, libquoter, libutils
#   libkelquote-dev  headers, CMake package, kelquote.pc
#   kelquote-sim     the simulated quote service, the replay service and the
#                    configuration reader
#   python3-kelquote the Python package
# Uses the regular build of scripts/test.sh (build/release) and builds only
# the libraries in it.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/release
# dpkg-shlibdeps and file work out the runtime package's dependencies.
scripts/install-deps.sh dpkg-dev file pybind11-dev python3-dev python3-numpy python3-pandas
scripts/build.sh release -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON -- kelquote DataApi DataApiReplay uaAuth kelquote_python >/dev/null
rm -f "$build"/packages/*.deb
out=$(cd "$build" && cpack -G DEB 2>&1) || { echo "$out" >&2; exit 1; }
ls -1 "$build"/packages/*.deb
