#!/usr/bin/env bash
# Builds the Debian packages from the library's build without tests
# (build/dist) into build/dist/packages/:
#   libkelquote2     libkelquote, libquoter, libutils
#   libkelquote-dev  headers, CMake package, kelquote.pc
#   kelquote-sim     the simulated quote service and the configuration reader
set -euo pipefail
cd "$(dirname "$0")/.."
# dpkg-shlibdeps and file work out the runtime package's dependencies.
scripts/install-deps.sh dpkg-dev file
scripts/build.sh dist -DKELQUOTE_TESTS=OFF -DKELQUOTE_DEMO=OFF >/dev/null
rm -f build/dist/packages/*.deb
out=$(cd build/dist && cpack -G DEB 2>&1) || { echo "$out" >&2; exit 1; }
ls -1 build/dist/packages/*.deb
