#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libssl-dev libsystemd-dev libmnl-dev libpci-dev
  libgtest-dev libgmock-dev
  libfuse3-dev fuse3
  util-linux procps
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
