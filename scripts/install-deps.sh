#!/usr/bin/env bash
# Installs the Debian 12 packages that Quorvane builds and tests with, only
# those that are missing. Run as root, or as a user who may use sudo.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config python3
  libgtest-dev libgmock-dev libbenchmark-dev
  libtbb-dev libembree-dev libstb-dev libpng-dev nlohmann-json3-dev
  libfreetype-dev fonts-dejavu-core
  libavcodec-dev libavformat-dev libswscale-dev libavutil-dev
  libglfw3-dev libimgui-dev
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
