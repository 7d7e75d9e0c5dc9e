#!/usr/bin/env bash
# Cross-builds the Windows x64 dependencies (log4cplus, tinyxml2, googletest)
# from Debian sources into ${KELQUOTE_WIN_DEPS:-$HOME/.cache/kelquote/win64-deps}.
# Idempotent: a rerun with the prefix in place only checks the stamp.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
toolchain="$(cd "$here/../../cmake" && pwd)/mingw-w64-x86_64.cmake"
prefix="${KELQUOTE_WIN_DEPS:-$HOME/.cache/kelquote/win64-deps}"
work="${prefix%/}-work"
jobs="$(nproc 2>/dev/null || echo 2)"

say() { echo "==> $*"; }

# One run at a time per prefix: builds of other checkouts that share the
# cache wait here instead of wiping each other's work.
mkdir -p "$(dirname "${prefix%/}")"
exec 9>"${prefix%/}.lock"
if ! flock -n 9; then
  say "waiting for another build of $prefix"
  flock 9
fi

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

# --- (a) host tools --------------------------------------------------------
packages=(g++-mingw-w64-x86-64-posix wine wine64 dpkg-dev cmake googletest)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
updated=0
if [ ${#missing[@]} -gt 0 ]; then
  say "installing ${missing[*]}"
  $sudo apt-get update -qq
  updated=1
  # Recommends would pull in X, fonts and 32-bit Wine; console programs need none.
  aptlog="$(mktemp)"
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >"$aptlog" 2>&1 || {
    cat "$aptlog" >&2
    exit 1
  }
  rm -f "$aptlog"
fi

# --- (b) deb-src for the machine's Debian archives ---------------------------
has_deb_src() {
  grep -hsqE '^[[:space:]]*deb-src[[:space:]]' /etc/apt/sources.list /etc/apt/sources.list.d/*.list ||
    grep -hsqiE '^Types:.*\bdeb-src\b' /etc/apt/sources.list.d/*.sources
}
if ! has_deb_src; then
  say "enabling deb-src for the Debian archives"
  src822=/etc/apt/sources.list.d/kelquote-deb-src.sources
  srclist=/etc/apt/sources.list.d/kelquote-deb-src.list
  # deb822 stanzas of Debian archives, copied with Types: deb-src.
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -e "$f" ] || continue
    [ "$f" = "$src822" ] && continue
    awk '
      function flush() {
        if (n && deb && debian) { for (i = 1; i <= n; i++) print lines[i]; print "" }
        n = 0; deb = 0; debian = 0
      }
      /^[[:space:]]*$/ { flush(); next }
      /^#/ { next }
      /^Types:/ { if ($0 ~ /[[:space:]]deb([[:space:]]|$)/) deb = 1; lines[++n] = "Types: deb-src"; next }
      /^URIs:/ { if ($0 ~ /debian/) debian = 1 }
      /^Enabled:[[:space:]]*no/ { deb = 0 }
      { lines[++n] = $0 }
      END { flush() }
    ' "$f"
  done | $sudo tee "$src822" >/dev/null
  [ -s "$src822" ] || $sudo rm -f "$src822"
  # One-line format.
  grep -hsE '^[[:space:]]*deb[[:space:]].*debian' /etc/apt/sources.list /etc/apt/sources.list.d/*.list |
    grep -v "kelquote-deb-src" | sed -E 's/^[[:space:]]*deb[[:space:]]/deb-src /' | $sudo tee "$srclist" >/dev/null || true
  [ -s "$srclist" ] || $sudo rm -f "$srclist"
  has_deb_src || { echo "no Debian source entries found to enable" >&2; exit 1; }
  updated=0
fi
if ! apt-cache showsrc tinyxml2 2>/dev/null | grep -q '^Package:'; then
  if [ "$updated" -eq 0 ]; then
    say "apt-get update"
    $sudo apt-get update -qq
  fi
fi

# --- stamp: skip everything when nothing changed ------------------------------
src_version() { apt-cache showsrc --only-source "$1" 2>/dev/null | awk '/^Version:/ { print $2; exit }'; }
key="$(
  {
    sha256sum "${BASH_SOURCE[0]}" "$toolchain" | awk '{ print $1 }'
    x86_64-w64-mingw32-g++-posix -dumpfullversion
    dpkg-query -W -f='${Version}\n' googletest
    src_version log4cplus
    src_version tinyxml2
  } | sha256sum | awk '{ print $1 }'
)"
stamp="$prefix/.kelquote-deps-stamp"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ]; then
  say "Windows x64 dependencies up to date in $prefix"
  exit 0
fi

# Never wipe a folder this script did not make.
marker="$prefix/.kelquote-deps"
if [ -d "$prefix" ] && [ ! -f "$marker" ] && [ -n "$(ls -A "$prefix")" ]; then
  echo "$prefix exists and is not a kelquote dependency prefix; refusing to overwrite" >&2
  exit 1
fi
rm -rf "$prefix" "$work"
mkdir -p "$prefix" "$work/src"
touch "$marker"

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

# cmake_build <name> <source dir> <cmake args...>; output goes to a log.
cmake_build() {
  local name="$1" src="$2"; shift 2
  local build="$work/build-$name" log="$work/$name.log"
  say "building $name"
  if ! {
    cmake -S "$src" -B "$build" "${generator[@]}" \
      -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
      -DKELQUOTE_WIN_DEPS="$prefix" \
      -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_INSTALL_PREFIX="$prefix" \
      "$@" &&
      cmake --build "$build" -j "$jobs" &&
      cmake --install "$build"
  } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "$name failed; full log: $log" >&2
    exit 1
  fi
}

# --- (c) sources -------------------------------------------------------------
fetch_source() {
  local pkg="$1"
  say "fetching Debian source of $pkg" >&2
  # apt-get source warns about running unsandboxed as root; harmless.
  (cd "$work/src" && apt-get source -qq "$pkg" >"$work/fetch-$pkg.log" 2>&1) || {
    cat "$work/fetch-$pkg.log" >&2
    exit 1
  }
  find "$work/src" -mindepth 1 -maxdepth 1 -type d -name "$pkg-*" | head -n 1
}
log4cplus_src="$(fetch_source log4cplus)"
tinyxml2_src="$(fetch_source tinyxml2)"
gtest_src=/usr/src/googletest

# --- (d) builds --------------------------------------------------------------
# Static log4cplus: only kelquote_core links it, so one copy per module.
# No thread pool: inside a DLL its workers are joined at DLL_PROCESS_DETACH,
# after Windows has killed them, and the process hangs at exit.
cmake_build log4cplus "$log4cplus_src" \
  -DBUILD_SHARED_LIBS=OFF \
  -DUNICODE=OFF \
  -DLOG4CPLUS_BUILD_TESTING=OFF \
  -DLOG4CPLUS_BUILD_LOGGINGSERVER=OFF \
  -DLOG4CPLUS_ENABLE_THREAD_POOL=OFF \
  -DLOG4CPLUS_ENABLE_DECORATED_LIBRARY_NAME=ON \
  -DWITH_UNIT_TESTS=OFF

cmake_build tinyxml2 "$tinyxml2_src" \
  -DBUILD_SHARED_LIBS=OFF \
  -Dtinyxml2_BUILD_TESTING=OFF

cmake_build googletest "$gtest_src" \
  -DBUILD_SHARED_LIBS=OFF \
  -DBUILD_GMOCK=ON \
  -DINSTALL_GTEST=ON

# --- (e) stamp ---------------------------------------------------------------
echo "$key" >"$stamp"
rm -rf "$work/build-"*
say "Windows x64 dependencies installed in $prefix"
