#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is missing
# (clang and its libFuzzer runtime for the fuzz targets of fuzz/run.sh).
# With the argument "bench", also the peers bench/run.sh measures the agent
# against (net-snmp's snmpd); with "package", what scripts/package.sh needs to
# build the .deb and check it (debhelper, lintian, and the build dependencies
# debian/control names, which the list above already holds).
# With "container", only what tests/container/run.sh needs to build and boot
# a Debian root under systemd.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libssl-dev libsystemd-dev libmnl-dev libpci-dev libfontconfig-dev fontconfig
  libgtest-dev libgmock-dev
  libcli11-dev nlohmann-json3-dev
  libfuse3-dev fuse3
  util-linux procps
  dbus-daemon
  clang libclang-rt-14-dev
)
if [ "${1:-}" = "bench" ]; then
  # Debian's snmpd package enables and, where an init system runs, starts its
  # own system service on the host's loopback; the benchmark runs a separate
  # snmpd of its own inside a private network namespace.
  packages+=(snmpd snmp netcat-openbsd)
fi
if [ "${1:-}" = "package" ]; then
  # man-db and groff-base let lintian check the man pages; the package's
  # check (tests/package/check.sh) runs the completion with bash-completion.
  packages+=(build-essential debhelper dpkg-dev fakeroot lintian man-db groff-base
             bash-completion)
fi
if [ "${1:-}" = "container" ]; then
  packages=(mmdebstrap systemd-container zstd util-linux procps)
fi

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
