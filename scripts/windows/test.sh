#!/usr/bin/env bash
# Cross-builds the project for Windows x64 into build/win64, runs the whole
# test suite under Wine and checks the export and import tables of the DLLs.
#   scripts/windows/test.sh [extra ctest arguments...]
#   scripts/windows/test.sh --build   only builds
# Installs MinGW-w64, Wine and cmake when missing and builds the Windows
# dependencies once into ${KELQUOTE_WIN_DEPS:-$HOME/.cache/kelquote/win64-deps}.
set -euo pipefail
cd "$(dirname "$0")/../.."
top=$(pwd)
build=build/win64
bin=$build/bin
jobs=$(nproc 2>/dev/null || echo 2)

scripts/windows/build-deps.sh

echo "== win64: build"
scripts/build.sh win64 -DCMAKE_TOOLCHAIN_FILE="$top/cmake/mingw-w64-x86_64.cmake" \
  -DKELQUOTE_TESTS=ON -DKELQUOTE_DEMO=ON -DCMAKE_UNITY_BUILD=ON
[ "${1:-}" != --build ] || exit 0

# --- export and import tables ---------------------------------------------------
objdump=x86_64-w64-mingw32-objdump
fail=0
problem() {
  echo "win64: $*" >&2
  fail=1
}
# Names in the export table of a DLL, one a line.
exports() {
  "$objdump" -p "$1" | awk '
    /^\[Ordinal\/Name Pointer\] Table/ { on = 1; next }
    on && /^[[:space:]]*$/ { on = 0 }
    on { print $NF }'
}
# DLLs a module imports from, lower case.
imports() { "$objdump" -p "$1" | awk '/DLL Name:/ { print tolower($3) }'; }

echo "== win64: export tables"
for dll in kelquote DataApi uaAuth quoter utils; do
  [ -f "$bin/$dll.dll" ] || problem "$bin/$dll.dll was not built"
done
[ "$fail" -eq 0 ] || exit 1

kq_exports=$(exports "$bin/kelquote.dll")
# Mangled-name prefix of the entities of class tavr::<name>: members, virtual
# table, type information.
entity() { echo "^_Z(NK?|T[VIS]N)4tavr${#1}$1"; }
grep -qx getKelClient <<<"$kq_exports" || problem "kelquote.dll does not export getKelClient"
for cls in KelQuoteClient BaseQuoteClient DraVikIData DravikCBalanceSheet DravikCShareIncome DravikCShareCashFlow \
  DravikCPerShare DravikCCapitalStructure Dravik_Cshare_holder_number Dravik_Ctop10_share_holder_base_info \
  Dravik_Ctop10_share_holder Dravik_Ctop10_flow_share_holder; do
  grep -Eq "$(entity "$cls")" <<<"$kq_exports" || problem "kelquote.dll exports nothing of tavr::$cls"
done
# Everything else stays inside: only getKelClient and what belongs to the
# classes that the exported headers mark KELQUOTE_API may appear.
mapfile -t exported_classes < <(sed -nE 's/^class KELQUOTE_API ([A-Za-z_][A-Za-z0-9_]*).*/\1/p' include/kelquote/*.h | sort -u)
allowed="^getKelClient\$"
for cls in "${exported_classes[@]}"; do allowed+="|$(entity "$cls")"; done
stray=$(grep -Ev "$allowed" <<<"$kq_exports" || true)
if [ -n "$stray" ]; then
  problem "kelquote.dll exports more than its interface:"
  c++filt <<<"$stray" | sed 's/^/    /' >&2
fi
if grep -Eq "$(entity DvDataMgr)" <<<"$kq_exports"; then problem "kelquote.dll exports the data manager"; fi

# The vendor libraries are replaceable only if ours carry their C names.
grep -qx GetApiInstance <<<"$(exports "$bin/DataApi.dll")" || problem "DataApi.dll does not export GetApiInstance"
grep -qx SymDecryptFile <<<"$(exports "$bin/uaAuth.dll")" || problem "uaAuth.dll does not export SymDecryptFile"

# ...and kelquote.dll asks nothing else of them.
for pair in DataApi.dll:GetApiInstance uaAuth.dll:SymDecryptFile; do
  dll=${pair%%:*}
  wanted=${pair#*:}
  got=$("$objdump" -p "$bin/kelquote.dll" | awk -v dll="$dll" '
    /DLL Name:/ { on = ($3 == dll); next }
    on && /^[[:space:]]*[0-9a-f]+[[:space:]]+[0-9]+[[:space:]]+[^[:space:]]+$/ { print $3 }' | xargs)
  [ "$got" = "$wanted" ] || problem "kelquote.dll imports [$got] from $dll, expected [$wanted]"
done

# kelquote.dll loads on a bare Windows: besides system DLLs it needs only the
# project's own, no MinGW runtime.
for module in "$bin"/*.dll "$bin"/*.exe; do
  bad=$(imports "$module" | grep -E '^(libstdc\+\+|libgcc|libwinpthread|liblog4cplus|libtinyxml2|libgtest)' || true)
  [ -z "$bad" ] || problem "$(basename "$module") needs $(echo $bad)"
done
expected="dataapi.dll quoter.dll uaauth.dll utils.dll"
got=$(imports "$bin/kelquote.dll" | grep -Ev '^(kernel32|msvcrt|ws2_32|advapi32|user32|shell32|ole32|api-ms-win-.*)\.dll$' | sort | xargs)
[ "$got" = "$expected" ] || problem "kelquote.dll imports [$got], expected [$expected]"
[ "$fail" -eq 0 ] || exit 1
echo "kelquote.dll: $(wc -l <<<"$kq_exports") exports, getKelClient and members of ${exported_classes[*]} only"

# --- portability ---------------------------------------------------------------
# Platform conditionals belong to the platform layer and the export macro.
conditionals=$(git ls-files --cached --others --exclude-standard -- '*.h' '*.cc' '*.cpp' '*.hpp' \
  ':!port/' ':!include/kelquote/export.h' |
  xargs -r grep -snE '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif).*\b(_WIN32|_WIN64|WIN32|__MINGW32__|__MINGW64__|_MSC_VER|__linux__|__unix__|__APPLE__|__CYGWIN__)\b' || true)
[ -z "$conditionals" ] || problem "platform conditionals outside port/:"$'\n'"$conditionals"
# MinGW frees a thread's thread_local storage before running the destructors
# of the objects there; such objects belong in port::ThreadLocal.
# A thread_local outside port/ holds a scalar or a pointer, or a type its file
# asserts to be trivially destructible.
tls=$(git ls-files --cached --others --exclude-standard -- '*.h' '*.cc' '*.cpp' '*.hpp' ':!port/' |
  while read -r file; do
    { grep -nE '\bthread_local\b' "$file" || true; } | while IFS= read -r line; do
      type=$(sed -E 's/.*\bthread_local[[:space:]]+(static[[:space:]]+)?(const[[:space:]]+)?([A-Za-z_][A-Za-z0-9_:<>]*).*/\3/' <<<"$line")
      grep -Eq "thread_local[^;=]*\*" <<<"$line" && continue
      grep -Eqx '(bool|char|short|int|long|unsigned|float|double|size_t|u?int(8|16|32|64)_t)' <<<"$type" && continue
      grep -q "is_trivially_destructible_v<$type>" "$file" && continue
      echo "$file:$line"
    done
  done)
[ -z "$tls" ] || problem "thread_local objects with destructors (use port::ThreadLocal):"$'\n'"$tls"
[ "$fail" -eq 0 ] || exit 1

# --- the suite under Wine ------------------------------------------------------
echo "== win64: test (Wine)"
. scripts/windows/wine.sh
trap wine_stop EXIT
wine_start
(cd "$build" && ctest -j "$jobs" --output-on-failure --no-tests=error "$@")

# --- the demo host ----------------------------------------------------------------
# The path a terminal takes, end to end: an executable importing kelquote.dll,
# which loads DataApi.dll and uaAuth.dll from the executable's folder, reads
# ./dravikcfg.dat and writes .\ini\ and ../userdata/log/.
echo "== win64: demo host (Wine)"
demo_dir=$build/demo-run
demo() {
  rm -rf "$demo_dir"
  mkdir -p "$demo_dir/run/ini" "$demo_dir/userdata/log"
  cp config/dravikcfg.dat "$demo_dir/run/"
  local status=0
  # A process that cannot exit (threads joined at DLL detach) is a failure too.
  (cd "$demo_dir/run" && timeout 60 wine "$top/$bin/kelquote_demo.exe" "$@") || status=$?
  [ "$status" -ne 124 ] || problem "kelquote_demo.exe $* did not exit within 60 s"
  return "$status"
}
if demo --outage; then
  config=$demo_dir/run/ini/KELQuoteLog.config
  [ -f "$config" ] && [ "$(wc -c <"$config")" -eq 611 ] ||
    problem "the demo host did not get the default log configuration"
  [ -s "$demo_dir/userdata/log/DravikData.log" ] ||
    problem "the demo host wrote no ../userdata/log/DravikData.log"
else
  problem "kelquote_demo.exe --outage failed"
fi
if demo --fail-connect >/dev/null; then problem "kelquote_demo.exe logged in against a refusing service"; fi
[ "$fail" -eq 0 ] || exit 1
echo "== win64: all passed"
