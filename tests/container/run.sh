#!/usr/bin/env bash
# Boots a throwaway Debian root with systemd and drives a Debian package in it.
#
#   tests/container/run.sh DEB NEWER_DEB   the agent's package, then its update
#
# Where the box cannot run (not root, tools not installable, archive out of
# reach, cgroups) it prints "SKIP: reason" and exits 0; any failed check
# exits 1. Whatever happens, the box is powered off and its tmpfs, cgroups
# and processes are removed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
BOX_LIB="$here/lib.sh"
# shellcheck source=tests/container/lib.sh
. "$BOX_LIB"
# shellcheck source=tests/container/package_scenario.sh
. "$here/package_scenario.sh"

usage() {
  echo "usage: $0 DEB NEWER_DEB" >&2
  exit 2
}

[ $# -eq 2 ] || usage
deb=$(realpath -e "$1") && newer=$(realpath -e "$2") || usage

[ "$(id -u)" -eq 0 ] || box_skip "needs root (systemd-nspawn, a tmpfs and cgroups)"
"$repo/scripts/deps.sh" container ||
  box_skip "cannot install the container tools (./scripts/deps.sh container failed)"
for tool in mmdebstrap systemd-nspawn nsenter setsid zstd dpkg-deb flock pgrep mountpoint; do
  command -v "$tool" >/dev/null || box_skip "$tool is not available"
done
[ -d /sys/fs/cgroup ] || box_skip "cgroup trouble: /sys/fs/cgroup is missing"

box_on_exit() {
  local rc=$?
  if ! cleanup; then
    echo "FAIL: cleanup left something behind" >&2
    [ "$rc" = 0 ] && rc=1
  fi
  exit "$rc"
}
trap box_on_exit EXIT
trap 'echo "interrupted" >&2; exit 130' INT
trap 'echo "terminated" >&2; exit 143' TERM

t0=$(box_now)
box_workdir
# varloctl comes out of the package under test, not out of this tree.
mkdir -p "$BOX_WORK/ctl"
dpkg-deb --fsys-tarfile "$deb" |
  tar -x -C "$BOX_WORK/ctl" --wildcards '*usr/bin/varloctl' ||
  box_fail "$deb holds no /usr/bin/varloctl"
package_scenario "$deb" "$newer" "$BOX_WORK/ctl/usr/bin/varloctl"
cleanup || box_fail "cleanup left something behind"
box_check_clean
echo "== container test passed in $(box_since "$t0") s"
