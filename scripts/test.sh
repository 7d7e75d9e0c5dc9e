#!/usr/bin/env bash
# Builds the library and runs the whole test suite: the regular build, then
# the same suite under AddressSanitizer+UBSan and under ThreadSanitizer.
#   scripts/test.sh            all three
#   KELQUOTE_FLAVOURS="release" scripts/test.sh   a subset (release, asan, tsan)
#   KELQUOTE_STEPS=build scripts/test.sh   only builds (or only tests: test)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# The Python package, the store's databases and its Python reader, the bus
# and its tests against real servers.
scripts/install-deps.sh pybind11-dev python3-dev python3-numpy python3-pandas python3-pytest \
  libsqlite3-dev libpq-dev postgresql python3-psycopg2 nats-server libnats-dev

jobs=$(nproc 2>/dev/null || echo 2)
flavours=${KELQUOTE_FLAVOURS:-"release asan tsan"}
steps=${KELQUOTE_STEPS:-"build test"}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

for flavour in $flavours; do
  case $flavour in
    # The regular build compiles each source on its own (so that a missing
    # include shows); the sanitizer builds compile a folder's sources
    # together, which roughly halves their time. At -O1 with line tables
    # only, as the sanitizers recommend, they compile in half the time again.
    release) args=(-DKELQUOTE_PCH=ON) ;;
    asan) args=(-DKELQUOTE_SANITIZE=address) ;;
    tsan) args=(-DKELQUOTE_SANITIZE=thread) ;;
    *) echo "unknown flavour: $flavour" >&2; exit 2 ;;
  esac
  [ "$flavour" = release ] || args+=(-DKELQUOTE_DEMO=OFF -DCMAKE_UNITY_BUILD=ON
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")
  if [[ " $steps " == *" build "* ]]; then
    echo "== $flavour: build"
    scripts/build.sh "$flavour" -DKELQUOTE_TESTS=ON "${args[@]}"
  fi
  [[ " $steps " == *" test "* ]] || continue
  echo "== $flavour: test"
  # Beside a PostgreSQL server of its own for the store's tests. Twice as
  # many tests as cores: most of them wait on threads, servers and timers.
  scripts/pg-test-server.sh bash -c "cd build/$flavour && ctest -j $((jobs * 2)) --output-on-failure --no-tests=error"
  # The Python package against the same build, with Debian's python3 whatever
  # PATH says; any exit but 0 (5: no tests ran) fails the run.
  if [ "$flavour" = release ]; then
    echo "== release: python"
    ls build/release/python/kelquote/_kelquote*.so >/dev/null
    KELQUOTE_PYTHONPATH=build/release/python KELQUOTE_RECORD_BIN="$(pwd)/build/release/bin/kelquote_record" \
      scripts/pg-test-server.sh /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
  fi
done
