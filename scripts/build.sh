#!/usr/bin/env bash
# Configures and builds one flavour into build/<name>:
#   scripts/build.sh <name> [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
name=$1
shift
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "build/$name" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "build/$name" -j "$jobs"
