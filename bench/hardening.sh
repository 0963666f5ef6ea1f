#!/usr/bin/env bash
# What the service's sandbox costs a session: inside a booted Debian root
# (tests/container/lib.sh), the packaged agent as its hardened service, then
# the same binary started bare as a transient unit, taking turns, three rounds
# each, same run. Needs root.
#
#   bench/hardening.sh build-pkg/varlo_5.6.0_amd64.deb
#
# Prints sessions per second (8 clients, 3 s) for the Configuration command
# and for IP Address, and the ratio hardened / bare (1.00: no cost).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/.." && pwd)
[ $# -eq 1 ] || { echo "usage: $0 DEB" >&2; exit 2; }
deb=$(realpath -e "$1")
[ "$(id -u)" -eq 0 ] || { echo "needs root" >&2; exit 2; }
BOX_LIB="$repo/tests/container/lib.sh"
# shellcheck source=tests/container/lib.sh
. "$BOX_LIB"

"$repo/scripts/deps.sh" container
(cd "$repo" && ./scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF)
trap 'cleanup || true' EXIT
trap 'exit 130' INT

box_workdir
build_or_reuse_root
boot
copy_in "$deb" /root/varlo.deb
copy_in "$repo/build-bench/bench/varlo_bench" /usr/local/bin/varlo_bench
in_box chmod 0755 /usr/local/bin/varlo_bench
in_box env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq /root/varlo.deb >/dev/null
in_box systemctl is-active -q varlo

# One measurement: sessions per second of COMMAND with 8 clients for 3 s.
rate() {
  in_box varlo_bench sessions 127.0.0.1 4347 8 3 "$1" | grep -o 'per_s=[0-9.]*' | tail -n 1 | cut -d= -f2
}
answering() { in_box varlo_bench probe 127.0.0.1 4347 1 >/dev/null 2>&1; }
hardened() {
  in_box systemctl stop varlo-bare 2>/dev/null || true
  in_box systemctl start varlo
  wait_until "the service answers" 20 answering >/dev/null
}
bare() {
  in_box systemctl stop varlo
  in_box systemd-run --quiet --unit=varlo-bare --collect --property=Type=notify \
    /usr/sbin/varlo nodaemon
  wait_until "the bare agent answers" 20 answering >/dev/null
}

declare -A sum=()
for round in 1 2 3; do
  for setup in hardened bare; do
    "$setup"
    for code in 1 28; do
      r=$(rate "$code")
      echo "round $round  $setup  command $code  sessions/s $r"
      sum[$setup.$code]=$(awk -v a="${sum[$setup.$code]:-0}" -v b="$r" 'BEGIN { print a + b }')
    done
  done
done
for code in 1 28; do
  name=$([ "$code" = 1 ] && echo Configuration || echo "IP Address")
  echo "$name: hardened/bare sessions per second ratio" \
    "$(awk -v a="${sum[hardened.$code]}" -v b="${sum[bare.$code]}" 'BEGIN { printf "%.2f", a / b }')"
done
