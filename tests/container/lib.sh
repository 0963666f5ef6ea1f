# Functions for booting a throwaway Debian root under systemd and driving it.
# Sourced by tests/container/run.sh; needs bash and root.
#
#   build_or_reuse_root   BOX_TARBALL: the cached root tarball, built when missing
#   boot                  extract it onto a tmpfs, boot it, wait until it runs
#   box_wait_stopped S    the box stops by itself; BOX_EXIT: 0 power-off, 133 reboot
#   box_start             boot the same root again
#   in_box CMD...         run CMD inside (all of the box's namespaces, clean env)
#   copy_in HOSTFILE PATH copy a file from this host into the box
#   wait_running [S]      until systemd inside says running (or degraded)
#   power_off [S]         orderly power-off; the box is killed if it overstays
#   cleanup               power off, kill leftovers, remove cgroups, tmpfs, work dir
#
# The box sees only its own loopback. Nothing here reaches the host's
# systemd or its bus: the box is neither registered nor given a unit, and
# runs in cgroups of its own under the caller's, removed afterwards.

BOX_SUITE=${VARLO_BOX_SUITE:-bookworm}
BOX_VARIANT=minbase
# The agent's shared libraries are in the root already, so that apt installs
# the local package with the box offline; procps and iproute2 for the checks.
BOX_INCLUDE=(systemd systemd-sysv dbus iproute2 procps
             libssl3 libsystemd0 libmnl0 libpci3 libfontconfig1)
# A package whose dependencies are not there yet: VARLO_BOX_INCLUDE="a,b".
if [ -n "${VARLO_BOX_INCLUDE:-}" ]; then
  IFS=', ' read -r -a _box_extra <<<"$VARLO_BOX_INCLUDE"
  BOX_INCLUDE+=("${_box_extra[@]}")
fi
# Bumped whenever the hooks below change what a cached root holds.
BOX_FORMAT=1
BOX_CACHE_DIR="${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/varlo/container"
BOX_HOSTNAME=varlo-box
BOX_PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
BOX_APT_ETC=${BOX_APT_ETC:-/etc/apt}   # where the host's apt sources are read from

BOX_WORK=""          # host folder of this run: tmpfs root, console log, scratch
BOX_ROOT=""          # the tmpfs the root is extracted onto
BOX_TARBALL=""
BOX_NSPAWN_PID=""
BOX_INIT_PID=""
BOX_LAST_INIT_PID=""
BOX_CGROUPS=()       # the cgroups this run made, one per hierarchy
BOX_CLEANED=0

box_say() { printf 'box: %s\n' "$*"; }

# The box cannot run here: say why and stop without failing the caller.
box_skip() {
  printf 'SKIP: %s\n' "$*"
  printf '(container test not run: skipped, not passed)\n'
  exit 0
}

box_fail() {
  printf 'FAIL: %s\n' "$*" >&2
  exit 1
}

box_now() { date +%s.%N; }
box_since() { awk -v a="$1" -v b="$(box_now)" 'BEGIN { printf "%.1f", b - a }'; }

box_workdir() {
  [ -n "$BOX_WORK" ] && return 0
  BOX_WORK=$(mktemp -d /tmp/varlo-box.XXXXXX)
  BOX_ROOT="$BOX_WORK/root"
  mkdir -p "$BOX_ROOT"
}

# --- the root tarball -------------------------------------------------------

# The host's own archive for BOX_SUITE and its -updates/-security suites, as
# one-line "deb URI SUITE main" entries, read from whatever apt reads: the
# one-line sources.list files and the deb822 .sources files.
box_host_sources() {
  local suite=$BOX_SUITE f
  {
    for f in "$BOX_APT_ETC/sources.list" "$BOX_APT_ETC"/sources.list.d/*.list; do
      [ -r "$f" ] || continue
      awk '
        /^[ \t]*deb[ \t]/ {
          line = $0
          sub(/#.*/, "", line)
          gsub(/\[[^]]*\]/, "", line)
          n = split(line, w, /[ \t]+/)
          k = 0
          for (i = 1; i <= n; i++) if (w[i] != "") v[++k] = w[i]
          comps = ""
          for (i = 4; i <= k; i++) comps = comps " " v[i]
          print v[2], v[3], comps
        }' "$f"
    done
    for f in "$BOX_APT_ETC"/sources.list.d/*.sources; do
      [ -r "$f" ] || continue
      awk '
        function flush(   i, j, n, m, U, S) {
          if (types ~ /(^| )deb( |$)/ && tolower(enabled) != "no") {
            n = split(uris, U, /[ \t]+/)
            m = split(suites, S, /[ \t]+/)
            for (i = 1; i <= n; i++) for (j = 1; j <= m; j++)
              if (U[i] != "" && S[j] != "") print U[i], S[j], comps
          }
          types = uris = suites = comps = enabled = cur = ""
        }
        /^#/ { next }
        /^[ \t]*$/ { flush(); next }
        /^[ \t]/ {
          v = $0; gsub(/^[ \t]+|[ \t]+$/, "", v)
          if (cur == "uris") uris = uris " " v
          else if (cur == "suites") suites = suites " " v
          else if (cur == "components") comps = comps " " v
          next
        }
        {
          p = index($0, ":"); if (p == 0) next
          cur = tolower(substr($0, 1, p - 1))
          v = substr($0, p + 1); gsub(/^[ \t]+|[ \t]+$/, "", v)
          if (cur == "types") types = v
          else if (cur == "uris") uris = v
          else if (cur == "suites") suites = v
          else if (cur == "components") comps = v
          else if (cur == "enabled") enabled = v
        }
        END { flush() }' "$f"
    done
  } | awk -v s="$suite" '
        ($2 == s || index($2, s "-") == 1 || $2 == s "/updates") && (" " $0 " ") ~ / main / {
          print "deb " $1 " " $2 " main"
        }' | awk '!seen[$0]++'
}

# Sets BOX_TARBALL to the cached root for the current arguments, building it
# with mmdebstrap when there is none. The key hashes suite, variant, package
# list, architecture and archive entries, so a change of any builds anew.
build_or_reuse_root() {
  local -a mirrors
  mapfile -t mirrors < <(box_host_sources)
  [ ${#mirrors[@]} -gt 0 ] ||
    box_skip "the host's apt sources name no Debian archive for $BOX_SUITE"
  local arch include key
  arch=$(dpkg --print-architecture)
  include=$(IFS=,; printf '%s' "${BOX_INCLUDE[*]}")
  key=$(printf '%s\n' "format=$BOX_FORMAT" "suite=$BOX_SUITE" "variant=$BOX_VARIANT" \
          "include=$include" "arch=$arch" "${mirrors[@]}" | sha256sum | cut -c1-16)
  BOX_TARBALL="$BOX_CACHE_DIR/root-$BOX_SUITE-$arch-$key.tar.zst"
  mkdir -p "$BOX_CACHE_DIR"

  # Two runs building the same root at once: the second waits for the first.
  exec {_box_lock}>"$BOX_CACHE_DIR/.lock"
  flock "$_box_lock"
  if [ -f "$BOX_TARBALL" ] && [ -s "$BOX_TARBALL" ]; then
    exec {_box_lock}>&-
    box_say "reusing root $BOX_TARBALL"
    return 0
  fi

  # Reachability first: an archive out of reach is a skip, a failed build
  # with the archive reachable is a failure.
  local first probe
  read -r _ first probe _ <<<"${mirrors[0]}"
  if ! timeout 60 /usr/lib/apt/apt-helper download-file \
         "${first%/}/dists/$probe/InRelease" "$BOX_CACHE_DIR/.probe-InRelease" >/dev/null 2>&1; then
    rm -f "$BOX_CACHE_DIR/.probe-InRelease"
    exec {_box_lock}>&-
    box_skip "cannot reach the Debian archive named in the host's apt sources"
  fi
  rm -f "$BOX_CACHE_DIR/.probe-InRelease"

  box_say "building root ($BOX_SUITE, $BOX_VARIANT, $include)"
  local t0 partial="${BOX_TARBALL%.tar.zst}.partial.tar.zst" log="$BOX_CACHE_DIR/build.log"
  t0=$(box_now)
  # mmdebstrap's scratch root on a tmpfs: on this disk dpkg's unpacking
  # takes several times as long.
  box_workdir
  mkdir -p "$BOX_WORK/build"
  mount -t tmpfs -o mode=0700,size=3g varlo-box-build "$BOX_WORK/build" ||
    box_skip "cannot mount a tmpfs on $BOX_WORK/build"
  # The hooks leave no archive address in the root (its apt works offline
  # on local packages only) and keep apt's timers from taking the dpkg lock
  # in the middle of a test.
  if ! TMPDIR="$BOX_WORK/build" mmdebstrap --variant="$BOX_VARIANT" --include="$include" \
        --customize-hook='rm -f "$1/etc/apt/sources.list" "$1"/etc/apt/sources.list.d/*' \
        --customize-hook="echo $BOX_HOSTNAME > \"\$1/etc/hostname\"" \
        --customize-hook='ln -sf /dev/null "$1/etc/systemd/system/apt-daily.timer"' \
        --customize-hook='ln -sf /dev/null "$1/etc/systemd/system/apt-daily-upgrade.timer"' \
        "$BOX_SUITE" "$partial" "${mirrors[@]}" >"$log" 2>&1; then
    rm -f "$partial"
    exec {_box_lock}>&-
    tail -n 30 "$log" >&2
    box_fail "mmdebstrap could not build the root (whole log: $log)"
  fi
  umount "$BOX_WORK/build"
  mv "$partial" "$BOX_TARBALL"
  exec {_box_lock}>&-
  box_say "root built in $(box_since "$t0") s: $BOX_TARBALL ($(du -h "$BOX_TARBALL" | cut -f1))"
}

# --- cgroups ----------------------------------------------------------------

# "MOUNTPOINT ROOT" of the first mount of file system type FSTYPE whose
# super options hold OPTION (any when empty).
box_cgroup_mount() {
  awk -v want="$1" -v opt="$2" '{
      for (i = 7; i <= NF; i++) if ($i == "-") break
      if ($(i + 1) != want) next
      if (opt != "" && ("," $(i + 3) ",") !~ ("," opt ",")) next
      print $5, $4; exit
    }' /proc/self/mountinfo
}

# The box runs in a cgroup of its own in each hierarchy systemd uses (the
# named v1 one and the unified one), made under the caller's, so that two
# boxes do not share systemd-nspawn's "payload" and "supervisor" and the
# whole tree can be emptied and removed afterwards.
box_make_cgroups() {
  local ctl path mnt root dir
  while IFS=: read -r _ ctl path; do
    case "$ctl" in
      name=systemd) mnt=$(box_cgroup_mount cgroup name=systemd) ;;
      "") mnt=$(box_cgroup_mount cgroup2 "") ;;
      *) continue ;;
    esac
    [ -n "$mnt" ] || continue
    root=${mnt#* }; mnt=${mnt%% *}
    # The mount shows the hierarchy from ROOT down; the path is the whole one.
    [ "$root" = / ] || path=${path#"$root"}
    dir="${mnt%/}${path%/}/varlo-box.$$"
    mkdir "$dir" 2>/dev/null || box_skip "cgroup trouble: cannot create $dir"
    BOX_CGROUPS+=("$dir")
  done </proc/self/cgroup
  [ ${#BOX_CGROUPS[@]} -gt 0 ] || box_skip "cgroup trouble: no systemd or unified cgroup hierarchy mounted"
}

# Every process left in this run's cgroups (all hierarchies).
box_cgroup_pids() {
  local cg
  for cg in "${BOX_CGROUPS[@]}"; do
    [ -d "$cg" ] && find "$cg" -name cgroup.procs -exec cat {} + 2>/dev/null
  done | sort -un
}

# --- booting ----------------------------------------------------------------

# Alive and not yet a zombie waiting for this shell to reap it.
box_alive() {
  local pid=$1 stat
  [ -n "$pid" ] || return 1
  stat=$(cat "/proc/$pid/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

box_console_tail() {
  [ -f "$BOX_WORK/console.log" ] || return 0
  printf -- '--- last lines of the box console (%s)\n' "$BOX_WORK/console.log" >&2
  tail -n "${1:-25}" "$BOX_WORK/console.log" | sed 's/\x1b\[[0-9;]*m//g' >&2
  printf -- '---\n' >&2
}

boot() {
  [ -n "$BOX_TARBALL" ] || box_fail "boot: no root tarball (build_or_reuse_root first)"
  box_workdir
  local t0
  t0=$(box_now)
  mount -t tmpfs -o mode=0755,size=2g varlo-box "$BOX_ROOT" ||
    box_skip "cannot mount a tmpfs on $BOX_ROOT"
  tar --zstd -xpf "$BOX_TARBALL" -C "$BOX_ROOT" ||
    box_fail "cannot extract $BOX_TARBALL"
  box_make_cgroups
  box_start || return 1
  box_say "booted in $(box_since "$t0") s (systemd-nspawn $BOX_NSPAWN_PID, init $BOX_INIT_PID)"
}

# Starts systemd-nspawn on the extracted root, whether fresh or left by an
# earlier boot, and waits until the box's systemd runs. The box never holds
# CAP_SYS_TIME: its clock is the host's, which no test may set.
box_start() {
  # setsid: a Ctrl-C at the terminal reaches this script, whose trap powers
  # the box off in order, not systemd-nspawn directly.
  (
    for cg in "${BOX_CGROUPS[@]}"; do echo "$BASHPID" >"$cg/cgroup.procs" || exit 97; done
    exec setsid systemd-nspawn -D "$BOX_ROOT" --boot --private-network \
      --register=no --keep-unit --console=read-only --link-journal=no \
      --drop-capability=CAP_SYS_TIME --hostname="$BOX_HOSTNAME"
  ) </dev/null >>"$BOX_WORK/console.log" 2>&1 &
  BOX_NSPAWN_PID=$!

  # The container's init is systemd-nspawn's child in a PID namespace of its own.
  local i pid mine
  mine=$(readlink /proc/self/ns/pid)
  for ((i = 0; i < 300; i++)); do
    if ! box_alive "$BOX_NSPAWN_PID"; then
      wait "$BOX_NSPAWN_PID" 2>/dev/null
      box_console_tail
      if grep -qi cgroup "$BOX_WORK/console.log"; then
        box_skip "cgroup trouble: systemd-nspawn stopped: $(grep -i -m1 cgroup "$BOX_WORK/console.log")"
      fi
      box_fail "systemd-nspawn stopped before the box's init started"
    fi
    for pid in $(pgrep -P "$BOX_NSPAWN_PID" 2>/dev/null); do
      if [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = systemd ] &&
         [ "$(readlink "/proc/$pid/ns/pid")" != "$mine" ]; then
        BOX_INIT_PID=$pid
        break 2
      fi
    done
    sleep 0.1
  done
  [ -n "$BOX_INIT_PID" ] || { box_console_tail; box_fail "the box's init did not start within 30 s"; }
  wait_running
}

# The box stops by itself (a power-off or reboot asked from inside) within
# LIMIT seconds; BOX_EXIT is systemd-nspawn's status: 0 after a power-off,
# 133 after a reboot. Returns 1, the box left running, when it overstays.
BOX_EXIT=""
box_wait_stopped() {
  local limit=$1 start
  start=$SECONDS
  while box_alive "$BOX_NSPAWN_PID"; do
    ((SECONDS - start < limit)) || return 1
    sleep 0.2
  done
  BOX_EXIT=0
  wait "$BOX_NSPAWN_PID" 2>/dev/null || BOX_EXIT=$?
  BOX_LAST_INIT_PID=$BOX_INIT_PID
  BOX_INIT_PID=""
  BOX_NSPAWN_PID=""
}

# CMD inside the box: its namespaces, root and a clean environment.
in_box() {
  [ -n "$BOX_INIT_PID" ] || box_fail "in_box: the box is not running"
  nsenter -t "$BOX_INIT_PID" -a -- /usr/bin/env -i PATH="$BOX_PATH" HOME=/root \
    LANG=C.UTF-8 TERM=dumb DEBIAN_FRONTEND=noninteractive "$@"
}

# Through the box itself: its /run, /tmp and /dev are its own mounts, which
# this host's view of the tmpfs does not show.
copy_in() {
  local src=$1 dest=$2 want got
  [ -f "$src" ] || box_fail "copy_in: no file $src"
  in_box sh -c 'mkdir -p "$(dirname "$1")" && cat >"$1" && chmod 0644 "$1"' sh "$dest" <"$src" ||
    box_fail "copy_in: cannot write $dest in the box"
  want=$(stat -c %s "$src")
  got=$(in_box stat -c %s "$dest") || got=none
  [ "$want" = "$got" ] || box_fail "copy_in: $dest has $got bytes in the box, $src has $want"
}

# Until systemd inside has finished starting up (bounded). Degraded is
# accepted with the failed units named; any other end state fails.
wait_running() {
  local limit=${1:-90} start state=""
  start=$SECONDS
  while ((SECONDS - start < limit)); do
    box_alive "$BOX_NSPAWN_PID" || { box_console_tail; box_fail "the box stopped while starting up"; }
    state=$(in_box systemctl is-system-running 2>/dev/null) || true
    case "$state" in
      running) return 0 ;;
      degraded)
        box_say "degraded; failed units: $(in_box systemctl --failed --no-legend --plain | awk '{print $1}' | tr '\n' ' ')"
        return 0 ;;
      maintenance | stopping | offline)
        box_console_tail
        box_fail "the box's systemd is $state" ;;
    esac
    sleep 0.5
  done
  box_console_tail
  box_fail "the box's systemd was not running within ${limit} s (last state: ${state:-none})"
}

# Asks the box's systemd to power off; past the limit systemd-nspawn is told
# to stop, and past that everything in the box's cgroups is killed.
# Returns 1 when the box had to be killed.
power_off() {
  local limit=${1:-30} start rc=0 pid
  if box_alive "$BOX_NSPAWN_PID"; then
    start=$SECONDS
    if [ -n "$BOX_INIT_PID" ]; then
      timeout 10 nsenter -t "$BOX_INIT_PID" -a -- /usr/bin/env -i PATH="$BOX_PATH" \
        systemctl poweroff --no-block >/dev/null 2>&1 || true
    fi
    while box_alive "$BOX_NSPAWN_PID" && ((SECONDS - start < limit)); do sleep 0.2; done
    if box_alive "$BOX_NSPAWN_PID"; then
      box_say "not powered off within ${limit} s: stopping systemd-nspawn $BOX_NSPAWN_PID"
      rc=1
      kill -TERM "$BOX_NSPAWN_PID" 2>/dev/null || true
      start=$SECONDS
      while box_alive "$BOX_NSPAWN_PID" && ((SECONDS - start < 10)); do sleep 0.2; done
      if box_alive "$BOX_NSPAWN_PID"; then
        box_say "killing systemd-nspawn $BOX_NSPAWN_PID and the box's processes"
        kill -KILL "$BOX_NSPAWN_PID" 2>/dev/null || true
      fi
    fi
  fi
  # Reap it (it is this shell's child) so that it leaves no zombie.
  [ -n "$BOX_NSPAWN_PID" ] && wait "$BOX_NSPAWN_PID" 2>/dev/null
  # Anything still in the box's cgroups is this run's and goes now.
  local i
  for ((i = 0; i < 50; i++)); do
    local -a left
    mapfile -t left < <(box_cgroup_pids)
    [ ${#left[@]} -eq 0 ] && break
    ((i == 0)) && { box_say "killing what the box left: ${left[*]}"; rc=1; }
    for pid in "${left[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
    sleep 0.1
  done
  # A killed init lingers until the host's init has reaped it.
  for ((i = 0; i < 50; i++)); do
    [ -n "$BOX_INIT_PID" ] && [ -e "/proc/$BOX_INIT_PID" ] || break
    sleep 0.1
  done
  BOX_LAST_INIT_PID=$BOX_INIT_PID
  BOX_INIT_PID=""
  return $rc
}

# The mount points at or below DIR (this run's folder: no spaces in it).
box_mounts_under() {
  awk -v d="$1" '$5 == d || index($5, d "/") == 1 { print $5 }' /proc/self/mountinfo
}

# Safe to call more than once and from any exit path. Returns non-zero when
# something could not be removed.
cleanup() {
  local rc=0 cg
  [ "$BOX_CLEANED" = 1 ] && return 0
  trap '' INT TERM
  power_off 30 || true
  for cg in "${BOX_CGROUPS[@]}"; do
    [ -d "$cg" ] || continue
    find "$cg" -depth -type d -exec rmdir {} + 2>/dev/null || true
    [ -d "$cg" ] && { box_say "cannot remove cgroup $cg"; rc=1; }
  done
  if [ -n "$BOX_WORK" ]; then
    # The box's root and mmdebstrap's scratch tmpfs, deepest first.
    local m
    for m in $(box_mounts_under "$BOX_WORK" | sort -r); do
      umount "$m" 2>/dev/null || umount -l "$m" 2>/dev/null ||
        { box_say "cannot unmount $m"; rc=1; }
    done
    if [ -z "$(box_mounts_under "$BOX_WORK")" ]; then
      rm -rf "$BOX_WORK" || rc=1
    fi
  fi
  BOX_CLEANED=1
  trap - INT TERM
  return $rc
}

# After cleanup: nothing of this run is left on the host.
box_check_clean() {
  local problems=() cg
  [ -n "$BOX_WORK" ] && [ -n "$(box_mounts_under "$BOX_WORK")" ] && problems+=("a mount under $BOX_WORK")
  [ -n "$BOX_WORK" ] && [ -e "$BOX_WORK" ] && problems+=("the folder $BOX_WORK")
  for cg in "${BOX_CGROUPS[@]}"; do [ -e "$cg" ] && problems+=("the cgroup $cg"); done
  [ -n "$BOX_NSPAWN_PID" ] && [ -e "/proc/$BOX_NSPAWN_PID" ] && problems+=("systemd-nspawn $BOX_NSPAWN_PID")
  [ -n "$BOX_LAST_INIT_PID" ] && [ -e "/proc/$BOX_LAST_INIT_PID" ] && problems+=("the box's init $BOX_LAST_INIT_PID")
  [ ${#problems[@]} -eq 0 ] || box_fail "left behind after cleanup: ${problems[*]}"
  box_say "cleaned up: no mount, cgroup, process or folder left"
}

# --- checks -----------------------------------------------------------------
# Each prints "ok: MESSAGE" or "FAIL: MESSAGE" with the command's output and
# exits; the caller's trap cleans up.

BOX_OUT=""   # the output of the last command a check ran

# check MESSAGE CMD...: CMD succeeds.
check() {
  local msg=$1; shift
  if BOX_OUT=$("$@" 2>&1); then
    printf 'ok: %s\n' "$msg"
  else
    local rc=$?
    printf 'FAIL: %s (exit %d: %s)\n' "$msg" "$rc" "$*" >&2
    [ -n "$BOX_OUT" ] && printf '%s\n' "$BOX_OUT" | tail -n 40 >&2
    exit 1
  fi
}

# check_exit MESSAGE STATUS CMD...: CMD exits with STATUS.
check_exit() {
  local msg=$1 want=$2 rc=0; shift 2
  BOX_OUT=$("$@" 2>&1) || rc=$?
  if [ "$rc" = "$want" ]; then
    printf 'ok: %s\n' "$msg"
  else
    printf 'FAIL: %s (exit %d, expected %s: %s)\n' "$msg" "$rc" "$want" "$*" >&2
    [ -n "$BOX_OUT" ] && printf '%s\n' "$BOX_OUT" | tail -n 40 >&2
    exit 1
  fi
}

# check_eq MESSAGE EXPECTED CMD...: CMD succeeds and prints EXPECTED.
check_eq() {
  local msg=$1 want=$2 rc=0; shift 2
  BOX_OUT=$("$@" 2>&1) || rc=$?
  if [ "$rc" = 0 ] && [ "$BOX_OUT" = "$want" ]; then
    printf 'ok: %s\n' "$msg"
  else
    printf 'FAIL: %s (exit %d: %s)\n  expected: %s\n  got:      %s\n' \
      "$msg" "$rc" "$*" "$want" "$BOX_OUT" >&2
    exit 1
  fi
}

# check_silent MESSAGE CMD...: CMD succeeds and prints nothing at all (for
# commands such as dpkg --audit that report problems with status 0).
check_silent() {
  local msg=$1 rc=0; shift
  BOX_OUT=$("$@" 2>&1) || rc=$?
  if [ "$rc" = 0 ] && [ -z "$BOX_OUT" ]; then
    printf 'ok: %s\n' "$msg"
  else
    printf 'FAIL: %s (exit %d: %s) printed:\n%s\n' "$msg" "$rc" "$*" "$BOX_OUT" >&2
    exit 1
  fi
}

# wait_until MESSAGE SECONDS CMD...: CMD succeeds within SECONDS (polled).
wait_until() {
  local msg=$1 limit=$2 start; shift 2
  start=$SECONDS
  while ! BOX_OUT=$("$@" 2>&1); do
    if ((SECONDS - start >= limit)); then
      printf 'FAIL: %s (not within %d s: %s)\n' "$msg" "$limit" "$*" >&2
      [ -n "$BOX_OUT" ] && printf '%s\n' "$BOX_OUT" | tail -n 40 >&2
      return 1
    fi
    sleep 0.5
  done
  printf 'ok: %s (%d s)\n' "$msg" "$((SECONDS - start))"
}

# --- questions about the box, for the checks --------------------------------

box_pkg_status() { in_box dpkg-query -W -f='${Status}' "$1"; }

# Nothing installed or left of the package: unknown to dpkg or not-installed.
box_pkg_gone() {
  local s
  s=$(in_box dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) || return 0
  [ "$s" = not-installed ]
}

# Some socket of the box (TCP or UDP, any address) listens on PORT.
box_port_open() {
  local out
  out=$(in_box ss -Hlntu "sport = :$1") || return 2
  [ -n "$out" ]
}
box_port_closed() { ! box_port_open "$1"; }

box_main_pid() { in_box systemctl show -P MainPID "$1"; }
