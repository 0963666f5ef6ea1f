# The agent's Debian package in a booted box: install, inventory, password
# across a restart, a refused truncated update, the agent's self-update to
# the newer package, another user's process ended, a folder received, an
# application launched and a message shown as the console user, a clock
# the box refuses, a reboot asked of the agent, a failing update, remove and
# purge.
# Sourced by run.sh after lib.sh; package_scenario DEB NEWER_DEB VARLOCTL,
# VARLOCTL being the varloctl taken out of DEB on this host.

SCENARIO_PW=n3wpass          # the agent keeps at most 7 characters
SCENARIO_DIR=/opt/harness    # readable by apt's sandbox user, owned by no package
SCENARIO_CTL=$SCENARIO_DIR/varloctl

# varloctl inside the box, against the box's own loopback.
box_ctl() { in_box timeout 600 "$SCENARIO_CTL" "$@"; }
box_ctl_pw() {
  local pw=$1; shift
  in_box env VARLO_PASSWORD="$pw" timeout 600 "$SCENARIO_CTL" "$@"
}

# The agent version of the probe reply from 127.0.0.1 ("" when none).
box_agent_version() {
  box_ctl --json discover 127.0.0.1 --timeout 2 2>/dev/null |
    sed -n 's/.*"agent_version": *"\([^"]*\)".*/\1/p' | head -n 1
}

box_agent_is() { [ "$(box_agent_version)" = "$1" ]; }
box_log_has_version() { in_box grep -qF "Varlo Version: $1" /var/log/Varlo.log; }
box_pkg_version() { in_box dpkg-query -W -f='${Status} ${Version}' varlo; }

# No dpkg runs and varlo VERSION is installed.
box_dpkg_done() {
  in_box sh -c '! pgrep -x dpkg >/dev/null' &&
    [ "$(box_pkg_version)" = "install ok installed $1" ]
}

# The installer's log: /tmp/vlinstall.log as the agent sees /tmp (a private
# /tmp of the service shows under the box's /tmp/systemd-private-*).
box_install_log() {
  in_box sh -c 'for f in /tmp/vlinstall.log /tmp/systemd-private-*-varlo.service-*/tmp/vlinstall.log; do
                  [ -f "$f" ] && exec cat "$f"; done; exit 1'
}
box_install_log_has() { box_install_log 2>/dev/null | grep -qF "$1"; }
box_forget_install_log() {
  in_box sh -c 'rm -f /tmp/vlinstall.log /tmp/systemd-private-*-varlo.service-*/tmp/vlinstall.log'
}

# The installer has finished: its log is there, no dpkg runs and no
# transient update unit is loaded; polled until that holds for 3 s in a row.
box_update_settled() {
  local limit=$1 start calm=0
  start=$SECONDS
  while ((SECONDS - start < limit)); do
    if box_install_log >/dev/null 2>&1 &&
       in_box sh -c '! pgrep -x dpkg >/dev/null' &&
       [ -z "$(in_box systemctl list-units --all --no-legend --plain 'varlo-update-*' 2>/dev/null)" ]; then
      calm=$((calm + 1))
      ((calm >= 6)) && return 0
    else
      calm=0
    fi
    sleep 0.5
  done
  return 1
}

box_update_diagnostics() {
  {
    echo "--- /tmp/vlinstall.log"
    box_install_log || echo "(none)"
    echo "--- journal of the update units"
    in_box journalctl --no-pager -o cat -u 'varlo-update-*' || true
    echo "--- systemctl status varlo"
    in_box systemctl status --no-pager varlo || true
    echo "--- tail of /var/log/Varlo.log"
    in_box tail -n 20 /var/log/Varlo.log || true
    echo "---"
  } >&2
}

box_apt_install() {
  local name=$1 out rc=0
  out=$(in_box sh -c "cd $SCENARIO_DIR && apt-get install -y ./$name" 2>&1) || rc=$?
  if [ "$rc" != 0 ]; then
    printf '%s\n' "$out" | tail -n 30 >&2
    if printf '%s' "$out" | grep -qiE 'unmet dependencies|Depends:'; then
      echo "(the box is offline: a dependency must be in the root; add it to BOX_INCLUDE" \
        "in tests/container/lib.sh, or try VARLO_BOX_INCLUDE=PACKAGE,...)" >&2
    fi
    box_fail "apt install ./$name (exit $rc)"
  fi
  echo "ok: apt install ./$name"
}

# dpkg status, audit and service: the same after the install and the update.
box_package_sound() {
  local version=$1
  check_eq "dpkg-query: varlo is installed" "install ok installed" box_pkg_status varlo
  check_eq "dpkg-query: varlo $version" "install ok installed $version" box_pkg_version
  check_silent "dpkg --audit reports nothing" in_box dpkg --audit
  wait_until "varlo.service is active" 30 in_box systemctl is-active varlo || exit 1
  check_eq "varlo.service is enabled" enabled in_box systemctl is-enabled varlo
}

package_scenario() {
  local deb=$1 newer=$2 ctl=$3
  local old_ver new_ver old_agent new_agent name
  for name in "$deb" "$newer"; do
    [ "$(dpkg-deb -f "$name" Package)" = varlo ] || box_fail "$name is not the varlo package"
  done
  old_ver=$(dpkg-deb -f "$deb" Version)
  new_ver=$(dpkg-deb -f "$newer" Version)
  # The agent reports X.Y.Z: the package's version less epoch and revision.
  old_agent=${old_ver#*:}; old_agent=${old_agent%%[-+~]*}
  new_agent=${new_ver#*:}; new_agent=${new_agent%%[-+~]*}
  [ "$old_agent" != "$new_agent" ] ||
    box_fail "both packages carry agent version $old_agent: the update could not be told apart"
  dpkg --compare-versions "$new_ver" gt "$old_ver" ||
    box_fail "$newer ($new_ver) is not newer than $deb ($old_ver)"

  local debname newname truncname=varlo_truncated.deb size
  debname=$(basename "$deb")
  newname=$(basename "$newer")
  size=$(stat -c %s "$newer")
  head -c $((size / 2)) "$newer" >"$BOX_WORK/$truncname"
  # The newer package with a postinst that fails: it still leaves an agent.
  local failname=varlo_failing.deb
  dpkg-deb -R "$newer" "$BOX_WORK/failing"
  sed -i '1a echo "varlo: this build fails in its postinst on purpose" >&2; exit 1' \
    "$BOX_WORK/failing/DEBIAN/postinst"
  sed -i "s/^Version: .*/Version: ${new_ver}+failing1/" "$BOX_WORK/failing/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$BOX_WORK/failing" "$BOX_WORK/$failname" >/dev/null

  build_or_reuse_root
  boot
  copy_in "$deb" "$SCENARIO_DIR/$debname"
  copy_in "$newer" "$SCENARIO_DIR/$newname"
  copy_in "$BOX_WORK/$truncname" "$SCENARIO_DIR/$truncname"
  copy_in "$BOX_WORK/$failname" "$SCENARIO_DIR/$failname"
  copy_in "$ctl" "$SCENARIO_CTL"
  in_box chmod 0755 "$SCENARIO_CTL"
  echo "ok: copied both packages, a truncated copy of the newer one and varloctl into the box"

  # --- install
  box_apt_install "$debname"
  box_package_sound "$old_ver"
  wait_until "varloctl discover 127.0.0.1 answers" 30 box_ctl discover 127.0.0.1 || exit 1
  check "the probe reply says agent version $old_agent" box_agent_is "$old_agent"
  check "/var/log/Varlo.log says Varlo Version: $old_agent" box_log_has_version "$old_agent"
  check "port 4347 is open" box_port_open 4347

  # --- every inventory command
  local help cmd
  help=$(box_ctl --help 2>&1) || true
  for cmd in config processes volumes disks scsi pci network ipaddrs apps controls \
             extensions fonts services census profiler "notes get"; do
    printf '%s\n' "$help" | grep -qE "^ *$cmd( |$)" ||
      box_fail "varloctl --help does not list \"$cmd\""
    # shellcheck disable=SC2086  # "notes get" is two words
    check "varloctl 127.0.0.1 $cmd" box_ctl 127.0.0.1 $cmd
  done

  # --- the password survives a restart; the old one is refused
  check "varloctl 127.0.0.1 password $SCENARIO_PW" box_ctl 127.0.0.1 password "$SCENARIO_PW"
  check "the new password opens a session" box_ctl_pw "$SCENARIO_PW" 127.0.0.1 config
  check "systemctl restart varlo" in_box systemctl restart varlo
  wait_until "varlo answers again after the restart" 30 box_ctl discover 127.0.0.1 || exit 1
  check "the new password still opens a session after the restart" \
    box_ctl_pw "$SCENARIO_PW" 127.0.0.1 config
  check_exit "the old (empty) password is refused with status 3" 3 box_ctl 127.0.0.1 config

  # --- a truncated package leaves the running agent as it was
  local main_pid
  main_pid=$(box_main_pid varlo)
  box_forget_install_log
  check "varloctl update with a truncated package is sent" \
    box_ctl --password "$SCENARIO_PW" 127.0.0.1 update "$SCENARIO_DIR/$truncname"
  box_update_settled 60 || { box_update_diagnostics; box_fail "the installer of the truncated package did not finish within 60 s"; }
  echo "ok: the installer of the truncated package has finished"
  check "the same agent still answers with version $old_agent" box_agent_is "$old_agent"
  check_eq "the agent's process is the same ($main_pid)" "$main_pid" box_main_pid varlo
  check_eq "dpkg-query: varlo $old_ver still installed" "install ok installed $old_ver" box_pkg_version
  check_silent "dpkg --audit reports nothing" in_box dpkg --audit
  local why
  why=$(box_install_log 2>/dev/null) || true
  # A log that does not say why fails the run, but only at the end: the
  # steps after it do not depend on it.
  local late=""
  if printf '%s' "$why" | grep -qiE 'error|fail|corrupt|unexpected end|truncat'; then
    echo "ok: /tmp/vlinstall.log says why: $(printf '%s' "$why" | grep -iE -m1 'error|fail|corrupt|unexpected end|truncat')"
  else
    box_update_diagnostics
    late="/tmp/vlinstall.log does not say why the truncated package was not installed"
    if in_box journalctl --no-pager -o cat -u 'varlo-update-*' 2>/dev/null | grep -qi error; then
      late="$late (dpkg's reason went to the journal of the update unit only)"
    fi
    printf 'FAIL: %s (going on; the run fails at the end)\n' "$late" >&2
  fi

  # --- the agent updates itself to the newer package
  box_forget_install_log
  check "varloctl update $newname is sent" \
    box_ctl --password "$SCENARIO_PW" 127.0.0.1 update "$SCENARIO_DIR/$newname"
  if ! wait_until "the probe reply says agent version $new_agent" 60 box_agent_is "$new_agent" ||
     ! wait_until "/var/log/Varlo.log says Varlo Version: $new_agent" 10 box_log_has_version "$new_agent" ||
     ! wait_until "dpkg has finished installing $new_ver" 60 box_dpkg_done "$new_ver"; then
    box_update_diagnostics
    exit 1
  fi
  box_package_sound "$new_ver"
  check "the password is kept across the update" box_ctl_pw "$SCENARIO_PW" 127.0.0.1 config
  check_exit "the empty password is still refused with status 3" 3 box_ctl 127.0.0.1 config

  # --- the agent ends another user's process in another unit
  local victim
  check "a process of nobody's runs in a unit of its own" \
    in_box systemd-run --quiet --unit=varlo-victim -p User=nobody sleep 600
  victim=$(box_main_pid varlo-victim.service)
  check "varloctl kill $victim ends it" box_ctl --password "$SCENARIO_PW" 127.0.0.1 kill "$victim"
  wait_until "varlo-victim.service has stopped" 10 \
    in_box sh -c '! systemctl -q is-active varlo-victim.service' || exit 1

  # --- Send Folder writes where the folder map points: "/" for XXXX
  check "a small tree to send" in_box sh -c \
    'mkdir -p /opt/harness/gift/sub && echo one >/opt/harness/gift/a && echo two >/opt/harness/gift/sub/b'
  check "varloctl send the tree to /" box_ctl --password "$SCENARIO_PW" 127.0.0.1 send /opt/harness/gift
  check_eq "the tree arrived whole as /gift" "one two" \
    in_box sh -c 'cat /gift/a /gift/sub/b | tr "\n" " " | sed "s/ $//"'

  # --- Launch App and Send Message as the user at the console. The box has
  # no screen: the user's session on seat0 is written into logind's seat
  # file, and stand-ins for xdg-open and notify-send say who ran them, with
  # what, in which control group.
  local stand_in='#!/bin/sh
{ echo "uid=$(id -u) gid=$(id -g)"; for a; do echo "arg=$a"; done; cat /proc/self/cgroup; } >"/tmp/$(basename "$0").out"'
  check "a user alice with stand-ins for xdg-open and notify-send" in_box sh -c "
    useradd -m alice && rm -f /tmp/xdg-open.out /tmp/notify-send.out &&
    for p in xdg-open notify-send; do printf '%s\n' '$stand_in' >/usr/local/bin/\$p; chmod 0755 /usr/local/bin/\$p; done &&
    printf '3 /usr/share/doc/dpkg/copyright\n' >/tmp/applist &&
    cp /run/systemd/seats/seat0 /run/seat0.saved &&
    printf 'ACTIVE=c1\nACTIVE_UID=%s\n' \$(id -u alice) >>/run/systemd/seats/seat0"
  local alice
  alice="uid=$(in_box id -u alice) gid=$(in_box id -g alice)"
  check "varloctl launch 3" box_ctl --password "$SCENARIO_PW" 127.0.0.1 launch 3
  wait_until "xdg-open has run" 10 in_box test -s /tmp/xdg-open.out || exit 1
  check_eq "xdg-open ran as alice on the listed file" \
    "$alice arg=/usr/share/doc/dpkg/copyright" \
    in_box sh -c 'grep -E "^(uid|arg)=" /tmp/xdg-open.out | tr "\n" " " | sed "s/ $//"'
  check "xdg-open ran in a unit of its own, outside the service" \
    in_box sh -c 'grep -q ":/system.slice/varlo-launch-[0-9-]*\.service$" /tmp/xdg-open.out &&
                   ! grep -q varlo.service /tmp/xdg-open.out'
  check "varloctl message hello" box_ctl --password "$SCENARIO_PW" 127.0.0.1 message hello
  wait_until "notify-send has run" 10 in_box test -s /tmp/notify-send.out || exit 1
  check "notify-send ran as alice with the text" \
    in_box sh -c "head -n 1 /tmp/notify-send.out | grep -qx '$alice' && grep -qx arg=hello /tmp/notify-send.out"
  check "the seat is given back to logind" \
    in_box sh -c 'cat /run/seat0.saved >/run/systemd/seats/seat0 && rm /run/seat0.saved'

  # --- Sync Clock: the service's system-call filter lets settimeofday
  # through. With a drop-in a filtered call fails with EUCLEAN, so only the
  # box's own refusal (it never holds CAP_SYS_TIME) gives the agent's answer
  # for EPERM.
  local dropin=/run/systemd/system/varlo.service.d
  check "a drop-in makes a filtered call fail with EUCLEAN" \
    in_box sh -c "mkdir -p $dropin && printf '[Service]\nSystemCallErrorNumber=EUCLEAN\n' >$dropin/filter-errno.conf && systemctl daemon-reload && systemctl restart varlo"
  wait_until "varlo answers with the drop-in" 30 box_ctl discover 127.0.0.1 || exit 1
  check_exit "varloctl clock is refused by the box" 1 \
    box_ctl --password "$SCENARIO_PW" 127.0.0.1 clock
  check "the agent's answer is the one for EPERM, not the filter's EUCLEAN" \
    grep -qF "Root priviledges are needed to set the time" <<<"$BOX_OUT"
  check "the drop-in goes" \
    in_box sh -c "rm -r $dropin && systemctl daemon-reload && systemctl restart varlo"
  wait_until "varlo answers without the drop-in" 30 box_ctl discover 127.0.0.1 || exit 1

  # --- the agent reboots its host from inside the service's sandbox, and the
  # service comes back by itself at boot
  check "varloctl reboot --yes is answered" \
    box_ctl --password "$SCENARIO_PW" 127.0.0.1 reboot --yes
  box_wait_stopped 60 || box_fail "the box did not reboot within 60 s of the agent's reboot"
  [ "$BOX_EXIT" = 133 ] ||
    box_fail "systemd-nspawn ended with status $BOX_EXIT, not 133 (a reboot)"
  echo "ok: the agent rebooted the box (systemd-nspawn ended with 133)"
  box_start || exit 1
  box_say "booted again (systemd-nspawn $BOX_NSPAWN_PID, init $BOX_INIT_PID)"
  wait_until "varlo answers after the reboot" 30 box_ctl discover 127.0.0.1 || exit 1
  box_package_sound "$new_ver"
  check "the password is kept across the reboot" box_ctl_pw "$SCENARIO_PW" 127.0.0.1 config

  # --- an update whose maintainer script fails still leaves an agent answering
  box_forget_install_log
  check "varloctl update $failname is sent" \
    box_ctl --password "$SCENARIO_PW" 127.0.0.1 update "$SCENARIO_DIR/$failname"
  box_update_settled 60 || { box_update_diagnostics; box_fail "the failing update did not finish within 60 s"; }
  check "an agent still answers after the failed update" box_ctl_pw "$SCENARIO_PW" 127.0.0.1 config
  check_eq "dpkg-query: varlo is half-configured" "half-configured" \
    in_box dpkg-query -W -f='${db:Status-Status}' varlo
  check "dpkg --audit names varlo" in_box sh -c 'dpkg --audit | grep -q varlo'
  check "/tmp/vlinstall.log has the failure" box_install_log_has 'fails in its postinst on purpose'

  # --- remove keeps the preferences, purge takes them
  check "apt remove varlo" in_box apt-get remove -y varlo
  check "no varlo process is left" in_box sh -c '! pgrep -x varlo'
  check "varlo.service is no longer active" in_box sh -c '! systemctl -q is-active varlo'
  check "port 4347 is closed (TCP and UDP)" box_port_closed 4347
  check "/var/lib/VarloPrefs is kept after the removal" in_box test -d /var/lib/VarloPrefs
  check_silent "dpkg --audit reports nothing after the removal" in_box dpkg --audit
  check "apt purge varlo" in_box apt-get purge -y varlo
  check "dpkg knows nothing more of varlo" box_pkg_gone varlo
  check "the purge removed /var/lib/VarloPrefs" in_box sh -c '! test -e /var/lib/VarloPrefs'
  check "the purge removed the agent's log" in_box sh -c '! test -e /var/log/Varlo.log'

  power_off 30 || box_fail "the box did not power off in order within 30 s"
  echo "ok: the box powered off in order"
  [ -z "$late" ] || box_fail "$late"
}
