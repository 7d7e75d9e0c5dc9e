#!/usr/bin/env bash
# Prints the non-blank lines of the git-tracked test files against those of
# the other sources (C++ and Python), their ratio, and the folders with the
# most test lines. The project keeps the ratio at a third or below.
#   scripts/test-ratio.sh [--max R] [--folders N]
# --max R fails (exit 1) when the ratio is above R.
set -euo pipefail
cd "$(dirname "$0")/.."
max=""
folders=8
while [ $# -gt 0 ]; do
  case $1 in
    --max) max=$2; shift 2 ;;
    --folders) folders=$2; shift 2 ;;
    *) echo "usage: $0 [--max R] [--folders N]" >&2; exit 2 ;;
  esac
done
sources='\.(cc|cpp|cxx|h|hpp|hh|py)$'
tests='(_test\.[a-z]+$|(^|/)tests?/|(^|/)testkit/|(^|/)test_[^/]*\.py$|_test\.py$|(^|/)conftest\.py$)'
# One line per file: "<test|code> <folder> <non-blank lines>".
git ls-files -z | tr '\0' '\n' | grep -E "$sources" | while IFS= read -r f; do
  [ -f "$f" ] || continue
  kind=code
  [[ $f =~ $tests ]] && kind=test
  dir=${f%/*}
  [ "$dir" = "$f" ] && dir=.
  printf '%s %s %s\n' "$kind" "$dir" "$(grep -cv '^[[:space:]]*$' "$f" || true)"
done | awk -v max="$max" -v folders="$folders" '
  { n[$1] += $3; per[$2 " " $1] += $3; dirs[$2] = 1 }
  END {
    ratio = n["code"] ? n["test"] / n["code"] : 0
    printf "test lines %d, code lines %d, ratio %.2f\n", n["test"], n["code"], ratio
    if (folders > 0) {
      cmd = "sort -k2,2nr | head -n " folders
      for (d in dirs) if (per[d " test"]) printf "  %-24s %6d test %6d code\n", d, per[d " test"], per[d " code"] | cmd
      close(cmd)
    }
    if (max != "" && ratio > max + 0) {
      printf "ratio %.2f is above %s\n", ratio, max
      exit 1
    }
  }'
