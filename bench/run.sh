#!/usr/bin/env bash
# Network benchmark: the agent against a trivial echo peer and against
# net-snmp's snmpd on loopback, in a private network and mount namespace so
# that nothing of the host is touched. Needs root (for the namespaces and the
# agents' ports). Usage: bench/run.sh [fleet]   (fleet: only the fleet run)
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" != "--inside" ]; then
  ./scripts/deps.sh bench
  ./scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVARLO_TESTS=OFF
  exec unshare --mount --net --uts --pid --fork --mount-proc "$0" --inside "${1:-all}"
fi

mount --make-rprivate /
for d in /run /var/log /var/tmp; do mount -t tmpfs tmpfs "$d"; done
# The host's package database stays visible, read-only, under the empty
# /var/lib: the Applications command and snmpd's software table read it.
mkdir /var/tmp/dpkg
mount --bind /var/lib/dpkg /var/tmp/dpkg
mount -t tmpfs tmpfs /var/lib
mkdir /var/lib/dpkg
mount --move /var/tmp/dpkg /var/lib/dpkg
mount -o remount,bind,ro /var/lib/dpkg
# Received files go to the agent's desktop folder, in tmpfs; no user's
# desktop is there to get links.
mount -t tmpfs tmpfs /root
mkdir /root/Desktop
mount -t tmpfs tmpfs /home
ip link set lo up
bench=./build-bench/bench/varlo_bench
# Everything started in the background here, the 2,000 idle processes below
# included, is ended at exit; waiting for them instead would take minutes.
trap 'kill -TERM $(jobs -p) 2>/dev/null; wait' EXIT

# A fleet: 20 agents, each alone in a network namespace joined to this one
# by a veth pair (192.0.2.2i here, .2i+1 there), since an agent listens on
# every address of its namespace; 20 snmpd placed the same way in
# 198.51.100.0/24. varloctl config to all 20 at once (--parallel 32), then
# the same 20 sessions one after the other (--parallel 1), against a shell
# loop of 20 snmpget of sysName.0 in parallel (numeric: Debian ships no
# SNMPv2-MIB). Each the median of 5 after a warm-up.
fleet_bench() {
  local n=20 i here there hosts=() snmp_hosts=() pids=()
  local fleet_dir
  fleet_dir=$(mktemp -d -p /var/tmp fleet.XXXXXX)
  mkdir -p "$fleet_dir/client/cert_indexes"
  printf 'rocommunity public default\ndontLogTCPWrappersConnects yes\n' >"$fleet_dir/snmpd.conf"
  for i in $(seq 0 $((n - 1))); do
    for kind in a s; do
      local net=192.0.2
      [ "$kind" = s ] && net=198.51.100
      here=$net.$((2 * i)); there=$net.$((2 * i + 1))
      ip netns add "f$kind$i"
      ip link add "v$kind$i" type veth peer name "w$kind$i"
      ip link set "w$kind$i" netns "f$kind$i"
      ip addr add "$here/31" dev "v$kind$i"
      ip link set "v$kind$i" up
      ip -n "f$kind$i" addr add "$there/31" dev "w$kind$i"
      ip -n "f$kind$i" link set "w$kind$i" up
      ip -n "f$kind$i" link set lo up
      if [ "$kind" = a ]; then
        # Its own pid file, log and preferences.
        ip netns exec "fa$i" sh -c 'for d in /run /var/log /var/lib /var/tmp; do
            mount -t tmpfs tmpfs "$d"; done; exec ./build-bench/varlo nodaemon' &
        hosts+=("$there")
      else
        mkdir -p "$fleet_dir/s$i"
        ip netns exec "fs$i" env SNMP_PERSISTENT_DIR="$fleet_dir/s$i" MIBS="" \
          snmpd -f -C -c "$fleet_dir/snmpd.conf" -Lo "udp:$there:161" >>"$fleet_dir/s$i.log" 2>&1 &
        snmp_hosts+=("$there")
      fi
      pids+=($!)
    done
  done
  printf '%s\n' "${hosts[@]}" >"$fleet_dir/hosts"
  for h in "${hosts[@]}"; do
    for _ in $(seq 50); do $bench probe "$h" 4347 1 >/dev/null 2>&1 && break; sleep 0.1; done
  done
  for h in "${snmp_hosts[@]}"; do
    for _ in $(seq 50); do $bench snmp-get "$h" 161 1 >/dev/null 2>&1 && break; sleep 0.1; done
  done
  now_us() { echo $(($(date +%s%N) / 1000)); }
  # time_us CMD...: the command's wall time; it must succeed.
  time_us() {
    local t0 t1
    t0=$(now_us)
    "$@" >/dev/null || { echo "fleet run failed: $*" >&2; return 1; }
    t1=$(now_us)
    echo $((t1 - t0))
  }
  snmp_loop() {
    local h p failed=0 gets=()
    for h in "${snmp_hosts[@]}"; do
      SNMP_PERSISTENT_DIR="$fleet_dir/client" MIBS="" \
        snmpget -v2c -c public -Oqv "$h" 1.3.6.1.2.1.1.5.0 >/dev/null &
      gets+=($!)
    done
    for p in "${gets[@]}"; do wait "$p" || failed=1; done
    return $failed
  }
  median5() { printf '%s\n' "$@" | sort -n | sed -n 3p; }
  local ctl=(./build-bench/varloctl --timeout 5)
  local par=() seq=() snmp=()
  time_us "${ctl[@]}" --parallel 32 "@$fleet_dir/hosts" config >/dev/null
  time_us "${ctl[@]}" --parallel 1 "@$fleet_dir/hosts" config >/dev/null
  time_us snmp_loop >/dev/null
  for _ in 1 2 3 4 5; do
    par+=("$(time_us "${ctl[@]}" --parallel 32 "@$fleet_dir/hosts" config)")
    seq+=("$(time_us "${ctl[@]}" --parallel 1 "@$fleet_dir/hosts" config)")
    snmp+=("$(time_us snmp_loop)")
  done
  local p s q
  p=$(median5 "${par[@]}"); s=$(median5 "${seq[@]}"); q=$(median5 "${snmp[@]}")
  echo "== Fleet of $n agents, each in its own network namespace: varloctl config"
  echo "varloctl --parallel 32: ${par[*]} us (median $p)"
  echo "varloctl --parallel 1:  ${seq[*]} us (median $s)"
  echo "20 snmpget sysName.0 in parallel (shell loop): ${snmp[*]} us (median $q)"
  echo "fleet parallel / one after the other: $(awk -v a="$p" -v b="$s" 'BEGIN { printf "%.2f", a / b }')" \
    "  fleet parallel / snmpget loop: $(awk -v a="$p" -v b="$q" 'BEGIN { printf "%.2f", a / b }')"
  kill -TERM "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  for i in $(seq 0 $((n - 1))); do ip netns del "fa$i"; ip netns del "fs$i"; done
  rm -rf "$fleet_dir"
}
if [ "${2:-all}" = fleet ]; then
  fleet_bench
  exit 0
fi

./build-bench/varlo nodaemon &
agent_pid=$!
$bench echo-server 4348 &

# snmpd answers on loopback only, reads no configuration but its own, and
# keeps its persistent state in tmpfs. It is not made to log every request,
# which would slow it down.
snmp=$(mktemp -d -p /var/tmp snmpd.XXXXXX)
mkdir "$snmp/state"
printf 'rocommunity public 127.0.0.1\ndontLogTCPWrappersConnects yes\n' >"$snmp/snmpd.conf"
start_snmpd() {
  SNMP_PERSISTENT_DIR="$snmp/state" MIBS="" \
    snmpd -f -C -c "$snmp/snmpd.conf" -Lo udp:127.0.0.1:161 >>"$snmp/log" 2>&1 &
  snmpd_pid=$!
  sleep 0.5
  for try in $(seq 10); do
    $bench snmp-get 127.0.0.1 161 1 >/dev/null && return 0
    if [ "$try" -eq 10 ] || ! kill -0 "$snmpd_pid" 2>/dev/null; then
      echo "snmpd does not answer:" >&2
      cat "$snmp/log" >&2
      exit 1
    fi
  done
}
start_snmpd

# Runs one varlo_bench measurement, shows it, and keeps its output, its
# figures line and its first figures line.
figures=""
measure() {
  local out
  out=$($bench "$@") || true
  printf '%s\n' "$out"
  measured=$out
  figures=$(printf '%s\n' "$out" | grep -o 'p50_us=.*' | tail -n 1)
  first_figures=$(printf '%s\n' "$out" | grep -o 'p50_us=.*' | head -n 1)
}
# combine FIGURES...: one figures line of the p50s of single-sample
# measurements, with report()'s percentiles.
combine() {
  printf '%s\n' "$@" | grep -o 'p50_us=[0-9.]*' | cut -d= -f2 | sort -n | awk '
    { v[NR] = $1; sum += $1 }
    END {
      if (NR == 0) exit 1
      printf "p50_us=%.2f p99_us=%.2f mean_us=%.2f per_s=%.1f n=%d\n",
        v[1 + int(0.5 * (NR - 1))], v[1 + int(0.99 * (NR - 1))], sum / NR, 1e6 * NR / sum, NR
    }'
}
# ratio FIGURES_A FIGURES_B KEY: A's KEY over B's, two decimals.
ratio() {
  awk -v a="$1" -v b="$2" -v k="$3" '
    function get(s, k,   n, i, f, kv) {
      n = split(s, f, " ")
      for (i = 1; i <= n; i++) { split(f[i], kv, "="); if (kv[1] == k) return kv[2] }
      return ""
    }
    BEGIN {
      x = get(a, k); y = get(b, k)
      if (x == "" || y == "" || y + 0 == 0) print "n/a"; else printf "%.2f\n", x / y
    }'
}

echo "== probe: agent (port 4347), then echo peer (4348)"
measure probe 127.0.0.1 4347 5000
probe_agent=$figures
measure probe 127.0.0.1 4348 5000
echo "== SNMPv2c GET of sysName.0: snmpd (port 161)"
measure snmp-get 127.0.0.1 161 5000 public
snmp_get=$figures
echo "probe / snmpd GET p50 ratio: $(ratio "$probe_agent" "$snmp_get" p50_us)" \
  " mean ratio: $(ratio "$probe_agent" "$snmp_get" mean_us)"

for c in 1 8 64; do
  echo "== IP Address sessions, $c concurrent: agent, then echo peer"
  measure sessions 127.0.0.1 4347 "$c" 5
  sessions_agent=$figures
  measure sessions 127.0.0.1 4348 "$c" 5
  sessions_echo=$figures
done
echo "sessions 64 clients agent/echo ratio: p50 $(ratio "$sessions_agent" "$sessions_echo" p50_us)" \
  " mean $(ratio "$sessions_agent" "$sessions_echo" mean_us)" \
  " sessions/s $(ratio "$sessions_agent" "$sessions_echo" per_s)"

echo "== Configuration sessions (no process is started per command)"
$bench sessions 127.0.0.1 4347 1 3 1
$bench sessions 127.0.0.1 4347 8 3 1

echo "== Processes with 2000 extra processes: agent session (connect to closing header), then ps"
for _ in $(seq 2000); do sleep 600 & done
sleep 1
echo "processes visible: $(ls -d /proc/[0-9]* | wc -l)"
$bench sessions 127.0.0.1 4347 1 5 3
$bench run 50 ps -e -o pid=,comm=

# snmpd rebuilds its software table (by running dpkg-query) when a request
# finds it older than its cache time, some tens of seconds, and answers walks
# within that time from memory. A fresh walk is therefore the first after
# snmpd starts; the agent keeps no such cache and reads the database anew
# for every answer.
apps_oid=1.3.6.1.2.1.25.6.3.1.2
echo "== Applications: agent against snmpd's hrSWInstalledName walk ($apps_oid)"
fresh=()
for _ in $(seq 5); do
  kill -TERM "$snmpd_pid"
  wait "$snmpd_pid" 2>/dev/null || true
  start_snmpd
  measure snmp-walk 127.0.0.1 161 1 "$apps_oid" public
  fresh+=("$figures")
  snmp_entries=$(printf '%s\n' "$measured" | grep -o '[0-9]* entries each' | cut -d' ' -f1)
done
snmp_fresh=$(combine "${fresh[@]}") || snmp_fresh=""
echo "snmpd fresh walks, combined:"
echo "  $snmp_fresh"
echo "snmpd walks from its cache:"
measure snmp-walk 127.0.0.1 161 5 "$apps_oid" public
measure software 127.0.0.1 4347 5 6
apps_whole=$figures
apps_first=$first_figures
apps_work=$(printf '%s\n' "$measured" | grep -o 'p50_us=.*' | sed -n 2p)
apps_entries=$(printf '%s\n' "$measured" | grep -o '[0-9]* entries in all' | cut -d' ' -f1)
echo "entries per answer: snmpd ${snmp_entries:-none}  agent ${apps_entries:-none}"
echo "agent whole answer / snmpd fresh walk: p50 $(ratio "$apps_whole" "$snmp_fresh" p50_us)" \
  " mean $(ratio "$apps_whole" "$snmp_fresh" mean_us)"
echo "agent first batch / snmpd fresh walk: p50 $(ratio "$apps_first" "$snmp_fresh" p50_us)" \
  " mean $(ratio "$apps_first" "$snmp_fresh" mean_us)"
# The search goes on during the pauses, so this one is a lower bound.
echo "agent whole answer less its 10 ms pauses (search overlapping them) / snmpd fresh walk: p50 $(ratio "$apps_work" "$snmp_fresh" p50_us)" \
  " mean $(ratio "$apps_work" "$snmp_fresh" mean_us)"

# Transfers: the agent's Send File and Send Folder through varloctl against
# a raw TCP copy of the same bytes into the same folder, on the same loopback.
ms() { date +%s%N | cut -c1-13; }
rate() { awk -v b="$1" -v ms="$2" 'BEGIN { printf "%.1f MB/s (%d ms)", b / 1048576 / (ms / 1000), ms }'; }
echo "== Send File of 1 GiB: varloctl send, then nc into the same folder (median of 3 after one warm-up each)"
head -c $((1 << 30)) /dev/zero > /var/tmp/big.bin
agent_send() {
  local t0 t1
  t0=$(ms); ./build-bench/varloctl --timeout 60 127.0.0.1 send /var/tmp/big.bin --folder desk >/dev/null; t1=$(ms)
  rm -f /root/Desktop/big.bin
  echo $((t1 - t0))
}
nc_send() {
  local t0 t1 listener
  nc -l 127.0.0.1 5001 > /root/Desktop/raw.bin & listener=$!
  sleep 0.3
  t0=$(ms); nc -N 127.0.0.1 5001 < /var/tmp/big.bin; wait "$listener"; t1=$(ms)
  rm -f /root/Desktop/raw.bin
  echo $((t1 - t0))
}
median() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
agent_send >/dev/null; nc_send >/dev/null
a=(); n=()
for _ in 1 2 3; do a+=("$(agent_send)"); n+=("$(nc_send)"); done
agent_ms=$(median "${a[@]}"); nc_ms=$(median "${n[@]}")
echo "agent: ${a[*]} ms, $(rate $((1 << 30)) "$agent_ms")  nc: ${n[*]} ms, $(rate $((1 << 30)) "$nc_ms")"
echo "send file / raw copy rate ratio: $(awk -v a="$agent_ms" -v b="$nc_ms" 'BEGIN { printf "%.2f", b / a }')"
rm -f /var/tmp/big.bin

echo "== Send Folder of 10,000 files of 1 KiB: varloctl send, then tar c | nc | tar x"
mkdir -p /var/tmp/tree
for d in $(seq 100); do
  mkdir /var/tmp/tree/d$d
  for f in $(seq 100); do head -c 1024 /dev/zero > /var/tmp/tree/d$d/f$f; done
done
t0=$(ms); ./build-bench/varloctl --timeout 60 127.0.0.1 send /var/tmp/tree --folder desk >/dev/null; t1=$(ms)
mkdir /root/Desktop/tarcopy
(nc -l 127.0.0.1 5002 | tar x -C /root/Desktop/tarcopy) & listener=$!
sleep 0.3
t2=$(ms); tar c -C /var/tmp tree | nc -N 127.0.0.1 5002; wait "$listener"; t3=$(ms)
echo "agent: $((t1 - t0)) ms  tar|nc|tar: $((t3 - t2)) ms"
echo "send folder / tar copy time ratio: $(awk -v a=$((t1 - t0)) -v b=$((t3 - t2)) 'BEGIN { printf "%.2f", a / b }')"
rm -rf /var/tmp/tree /root/Desktop/tree /root/Desktop/tarcopy

# The census walks "/", so it runs in a root holding the host's /usr and
# nothing else on disk (tmpfs is no disk and is not counted): its answer is
# then the census of /usr, timed against du -s /usr, both warm.
echo "== File-extension census of /usr: agent (whole answer), then du -s /usr"
kill -TERM "$agent_pid"
wait "$agent_pid" 2>/dev/null || true
jail=$(mktemp -d -p /var/tmp census.XXXXXX)
mount -t tmpfs tmpfs "$jail"
mkdir -p "$jail"/{usr,proc,tmp,run,etc,opt,var/log,var/lib,var/run}
mount --bind /usr "$jail/usr"
mount -o remount,bind,ro "$jail/usr"
mount -t proc proc "$jail/proc"
for l in bin sbin lib lib64; do [ -e "/usr/$l" ] && ln -s "usr/$l" "$jail/$l"; done
cp ./build-bench/varlo "$jail/opt/varlo"
chroot "$jail" /opt/varlo nodaemon &
for try in $(seq 50); do $bench probe 127.0.0.1 4347 1 >/dev/null 2>&1 && break; sleep 0.1; done
du -s /usr >/dev/null
measure software 127.0.0.1 4347 5 23
census_agent=$figures
census_first=$first_figures
census_work=$(printf '%s\n' "$measured" | grep -o 'p50_us=.*' | sed -n 2p)
measure run 5 du -s /usr
census_du=$figures
echo "census / du -s ratio: p50 $(ratio "$census_agent" "$census_du" p50_us)" \
  " mean $(ratio "$census_agent" "$census_du" mean_us)"
echo "census less its 10 ms pauses / du -s ratio: p50 $(ratio "$census_work" "$census_du" p50_us)" \
  " mean $(ratio "$census_work" "$census_du" mean_us)"
echo "census first batch (the walk done) / du -s ratio: p50 $(ratio "$census_first" "$census_du" p50_us)" \
  " mean $(ratio "$census_first" "$census_du" mean_us)"

fleet_bench
