#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) into build/fuzz and runs
# each for a bounded time from its seed corpus:
#   scripts/fuzz.sh [seconds per target, default 20]
#   scripts/fuzz.sh --build   only builds them
# A crash fails the script; its input is copied to fuzz/regressions/<target>/,
# where the normal suite replays it (fuzz_entry_test) once it is committed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
scripts/install-deps.sh clang libclang-rt-14-dev

root=$(pwd)
build=$root/build/fuzz
generator=()
if [ ! -f "$build/CMakeCache.txt" ] && command -v ninja >/dev/null; then
  generator=(-G Ninja)
fi
# -O1 without full debug information: the build is most of the stage's time.
CC=clang CXX=clang++ cmake -S . -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=Fuzz \
  -DCMAKE_CXX_FLAGS_FUZZ="-O1 -gline-tables-only" -DKELQUOTE_SANITIZE=address -DKELQUOTE_FUZZ=ON \
  -DCMAKE_UNITY_BUILD=ON -DKELQUOTE_TESTS=OFF -DKELQUOTE_DEMO=OFF -DKELQUOTE_INSTALL=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_config fuzz_record
[ "$seconds" != --build ] || exit 0

export TZ=CST-8
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=0
for target in config record; do
  # New inputs go to the build's corpus; the checked-in seeds stay as they are.
  corpus=$build/corpus/$target
  artifacts=$build/crashes/$target
  rm -rf "$artifacts"
  mkdir -p "$corpus" "$artifacts"
  echo "== fuzz_$target: ${seconds}s"
  # No leak check after each input: the queue recycles its blocks across
  # inputs, so LSan would scan the heap after nearly every one (15 times
  # slower). The suite's ASan build checks for leaks.
  if ! "$build/bin/fuzz_$target" -max_total_time="$seconds" -max_len=8192 -timeout=30 -detect_leaks=0 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$root/fuzz/corpus/$target" \
      >"$build/fuzz_$target.log" 2>&1; then
    tail -n 60 "$build/fuzz_$target.log"
    mkdir -p "fuzz/regressions/$target"
    cp "$artifacts"/* "fuzz/regressions/$target/" 2>/dev/null || true
    echo "fuzz_$target failed; its input is kept in fuzz/regressions/$target/: $(ls "$artifacts" | tr '\n' ' ')"
    failed=1
  else
    grep -E '^stat::peak_rss_mb|^Done' "$build/fuzz_$target.log" || true
  fi
done
exit $failed
