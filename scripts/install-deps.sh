#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing:
#   scripts/install-deps.sh [further packages a script needs...]
set -euo pipefail

packages=(cmake make ninja-build g++ pkg-config liblog4cplus-dev libtinyxml2-dev libgtest-dev libbenchmark-dev "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
