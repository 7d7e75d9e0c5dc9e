#!/usr/bin/env bash
# Configures and builds one flavour into build/<name>:
#   scripts/build.sh <name> [extra cmake arguments...] [-- targets...]
# Everything unless targets are named. A new build folder uses Ninja when it
# is installed (it keeps both cores busy across targets); an existing one
# keeps its generator.
set -euo pipefail
cd "$(dirname "$0")/.."
name=$1
shift
args=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  args+=("$1")
  shift
done
[ $# -eq 0 ] || shift
targets=()
[ $# -eq 0 ] || targets=(--target "$@")
jobs=$(nproc 2>/dev/null || echo 2)
generator=()
if [ ! -f "build/$name/CMakeCache.txt" ] && command -v ninja >/dev/null; then
  generator=(-G Ninja)
fi
cmake -S . -B "build/$name" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
cmake --build "build/$name" -j "$jobs" "${targets[@]}"
