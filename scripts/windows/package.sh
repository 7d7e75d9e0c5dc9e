#!/usr/bin/env bash
# Builds the Windows x64 zip, build/win64/packages/kelquote-<version>-win64.zip:
#   bin/      kelquote.dll, quoter.dll, utils.dll and the stand-ins DataApi.dll, uaAuth.dll;
#             bin/replay/DataApi.dll, the replay service
#   lib/      their import libraries, the CMake package, the pkg-config files
#   include/  the headers; share/kelquote/ a configuration for the simulated service
# Uses the cross build of scripts/windows/test.sh (build/win64) and builds
# only the libraries in it.
set -euo pipefail
cd "$(dirname "$0")/../.."
top=$(pwd)
build=build/win64

scripts/windows/build-deps.sh >/dev/null
scripts/build.sh win64 -DCMAKE_TOOLCHAIN_FILE="$top/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON -- kelquote DataApi DataApiReplay uaAuth >/dev/null
rm -f "$build"/packages/*.zip
out=$(cd "$build" && cpack -G ZIP 2>&1) || { echo "$out" >&2; exit 1; }
ls -1 "$build"/packages/*.zip
