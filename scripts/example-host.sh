#!/usr/bin/env bash
# Builds and runs the example host (examples/host/) as a project outside this
# tree builds it: through find_package(kelquote) and through pkg-config
# against the library installed into a temporary prefix, through
# find_package against the unpacked Debian packages, and with this tree added
# by add_subdirectory. Each run logs in against the simulated quote service,
# prints a few quotes and ends by itself.
#   scripts/example-host.sh
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)
# The libraries of the regular build (build/release) and their packages.
scripts/package.sh >/dev/null

work=$(mktemp -d "${TMPDIR:-/tmp}/kelquote-host.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install build/release --prefix "$prefix" >/dev/null

# Runs a host in a fresh folder laid out as a terminal's: run/{dravikcfg.dat, ini/}, userdata/log/.
run() {
  rm -rf "$work/run" "$work/userdata"
  mkdir -p "$work/run/ini" "$work/userdata/log"
  cp "$prefix/share/kelquote/dravikcfg.dat" "$work/run/"
  (cd "$work/run" && timeout 30 "$@")
}

echo "== example host: find_package"
cmake -S examples/host -B "$work/find_package" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/find_package" -j "$jobs" >/dev/null
run "$work/find_package/bin/kelquote_host"

echo "== example host: pkg-config"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kelquote.pc)")
libdir=$(pkg-config --variable=libdir kelquote)
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -o "$work/pkg-config-host" examples/host/main.cc \
  $(pkg-config --cflags --libs kelquote kelquote-sim) -Wl,-rpath,"$libdir"
run "$work/pkg-config-host"

echo "== example host: find_package, Debian packages"
for deb in build/release/packages/*.deb; do dpkg-deb -x "$deb" "$work/debs"; done
cmake -S examples/host -B "$work/debs-host" -DCMAKE_PREFIX_PATH="$work/debs/usr" >/dev/null
cmake --build "$work/debs-host" -j "$jobs" >/dev/null
run "$work/debs-host/bin/kelquote_host"

# The library is compiled once more here, inside the host's build (a unity
# build: it checks that the tree builds inside a host, not each source); kept
# in build/ so that a rerun only builds what changed.
echo "== example host: add_subdirectory"
generator=()
[ -f build/example-host/CMakeCache.txt ] || ! command -v ninja >/dev/null || generator=(-G Ninja)
cmake -S examples/host -B build/example-host "${generator[@]}" -DKELQUOTE_SOURCE_DIR="$top" \
  -DCMAKE_UNITY_BUILD=ON >/dev/null
cmake --build build/example-host -j "$jobs" >/dev/null
run "$top/build/example-host/bin/kelquote_host"
