#!/usr/bin/env bash
# Builds the benchmarks (optimised, no sanitizer) and runs them:
#   scripts/bench.sh [Google Benchmark flags, e.g. --benchmark_filter=L1]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh bench -DKELQUOTE_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
build/bench/bin/pipeline_bench "$@"
