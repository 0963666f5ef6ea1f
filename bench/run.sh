#!/usr/bin/env bash
# Network benchmark: the agent against a trivial echo peer on loopback, in a
# private network and mount namespace so that nothing of the host is touched.
# Needs root (for the namespaces and the agent's port). Usage: bench/run.sh
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" != "--inside" ]; then
  ./scripts/deps.sh
  ./scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF
  exec unshare --mount --net --uts --pid --fork --mount-proc "$0" --inside
fi

mount --make-rprivate /
for d in /run /var/log /var/lib /var/tmp; do mount -t tmpfs tmpfs "$d"; done
ip link set lo up
bench=./build-bench/bench/varlo_bench
./build-bench/varlo nodaemon &
agent=$!
$bench echo-server 4348 &
echo_pid=$!
trap 'kill -TERM $agent 2>/dev/null; kill $echo_pid 2>/dev/null; wait' EXIT
sleep 0.5

echo "== probe: agent (port 4347), then echo peer (4348)"
$bench probe 127.0.0.1 4347 5000
$bench probe 127.0.0.1 4348 5000
for c in 1 8 64; do
  echo "== IP Address sessions, $c concurrent: agent, then echo peer"
  $bench sessions 127.0.0.1 4347 "$c" 5
  $bench sessions 127.0.0.1 4348 "$c" 5
done

echo "== Configuration sessions (no process is started per command)"
$bench sessions 127.0.0.1 4347 1 3 1
$bench sessions 127.0.0.1 4347 8 3 1

echo "== Processes with 2000 extra processes: agent session (connect to closing header), then ps"
for _ in $(seq 2000); do sleep 600 & done
sleep 1
echo "processes visible: $(ls -d /proc/[0-9]* | wc -l)"
$bench sessions 127.0.0.1 4347 1 5 3
$bench run 50 ps -e -o pid=,comm=
