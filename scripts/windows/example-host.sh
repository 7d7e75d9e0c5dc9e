#!/usr/bin/env bash
# Builds the example host (examples/host/) for Windows x64 against the
# unpacked zip of scripts/windows/package.sh, as a project outside this tree
# builds it: through find_package(kelquote) and through pkg-config with
# MinGW-w64 g++. Each runs under Wine with the five DLLs beside it, logs in
# against the simulated quote service, prints a few quotes and ends by itself.
#   scripts/windows/example-host.sh
set -euo pipefail
cd "$(dirname "$0")/../.."
top=$(pwd)
toolchain=$top/cmake/mingw-w64-x86_64.cmake
jobs=$(nproc 2>/dev/null || echo 2)

zip=$(scripts/windows/package.sh | tail -n 1)
work=$(mktemp -d "${TMPDIR:-/tmp}/kelquote-host.XXXXXX")
. scripts/windows/wine.sh
trap 'wine_stop; rm -rf "$work"' EXIT
(cd "$work" && cmake -E tar xf "$top/$zip")
prefix=$work/$(basename "$zip" .zip)

# Runs a host with the DLLs beside it, in a fresh folder laid out as a
# terminal's: run/{dravikcfg.dat, ini/}, userdata/log/.
run() {
  cp "$prefix"/bin/*.dll "$(dirname "$1")/"
  rm -rf "$work/run" "$work/userdata"
  mkdir -p "$work/run/ini" "$work/userdata/log"
  cp "$prefix/share/kelquote/dravikcfg.dat" "$work/run/"
  (cd "$work/run" && timeout 60 wine "$1")
}

wine_start

echo "== win64 example host: find_package"
# The toolchain searches packages inside its own roots only; the package's folder is named.
cmake -S examples/host -B "$work/find_package" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -Dkelquote_DIR="$prefix/lib/cmake/kelquote" >/dev/null
cmake --build "$work/find_package" -j "$jobs" >/dev/null
run "$work/find_package/bin/kelquote_host.exe"

echo "== win64 example host: pkg-config"
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig
mkdir -p "$work/pkg-config"
# The MinGW runtime linked in statically, as the DLLs have it; the DLLs' import libraries as they are.
# shellcheck disable=SC2046
x86_64-w64-mingw32-g++-posix -std=c++17 -Wall -Wextra -o "$work/pkg-config/kelquote_host.exe" \
  examples/host/main.cc $(pkg-config --cflags kelquote kelquote-sim) \
  -static -Wl,-Bdynamic $(pkg-config --libs kelquote kelquote-sim) -Wl,-Bstatic
run "$work/pkg-config/kelquote_host.exe"
