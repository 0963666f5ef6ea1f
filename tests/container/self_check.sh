# The harness on its own, before any agent package exists: reading the
# host's apt sources, then a small package made here with dpkg-deb
# ("harness-probe": a service that counts its starts, and a socket on the
# agent's port 4347 that answers one line) taken through the same steps as
# the agent's package: install offline, dpkg status and audit, service
# active and enabled, restart, remove, purge. Sourced by run.sh after lib.sh.

# Host side, no box: the archive entries come out of one-line and deb822
# files alike, and nothing else does (other suites, deb-src, disabled
# entries, third-party suites, other components).
self_check_sources() {
  local etc="$BOX_WORK/apt-etc"
  mkdir -p "$etc/sources.list.d"
  cat >"$etc/sources.list" <<'EOF'
# a comment
deb [arch=amd64 signed-by=/usr/share/keyrings/k.gpg] http://one.example/debian bookworm main contrib
deb-src http://one.example/debian bookworm main
deb http://one.example/debian bullseye main
deb http://three.example/debian bookworm contrib   # not main
EOF
  cat >"$etc/sources.list.d/two.sources" <<'EOF'
Types: deb deb-src
URIs: http://two.example/debian
 http://two-b.example/debian
Suites: bookworm
  bookworm-updates
Components: main
Signed-By: -----BEGIN PGP PUBLIC KEY BLOCK-----
 .
 mQINBGPL0BUBEADmW5NdOOHwPIJlgPu6JDcKw/NZJPR8lsD9K7UUfG9A4LU7i1Rz
 -----END PGP PUBLIC KEY BLOCK-----

# disabled
Types: deb
URIs: http://off.example/debian
Suites: bookworm
Components: main
Enabled: no

Types: deb
URIs: http://sec.example/debian-security
Suites: bookworm-security
Components: main contrib
EOF
  cat >"$etc/sources.list.d/vendor.sources" <<'EOF'
Types: deb
URIs: http://vendor.example/apt
Suites: cloud-bookworm nodistro
Components: main
EOF
  local want
  want=$(printf '%s\n' \
    "deb http://one.example/debian bookworm main" \
    "deb http://two.example/debian bookworm main" \
    "deb http://two.example/debian bookworm-updates main" \
    "deb http://two-b.example/debian bookworm main" \
    "deb http://two-b.example/debian bookworm-updates main" \
    "deb http://sec.example/debian-security bookworm-security main")
  check_eq "the host's archive entries for bookworm are read from sources.list and .sources files" \
    "$want" env BOX_APT_ETC="$etc" VARLO_BOX_SUITE=bookworm bash -c '. "$1"; box_host_sources' _ "$BOX_LIB"
}

self_check_build_package() {
  local pkg="$BOX_WORK/harness-probe"
  mkdir -p "$pkg/DEBIAN" "$pkg/etc" "$pkg/usr/lib/harness-probe" "$pkg/lib/systemd/system"
  cat >"$pkg/DEBIAN/control" <<'EOF'
Package: harness-probe
Version: 1.0
Architecture: all
Maintainer: Varlo developers <varlo@localhost>
Depends: systemd, init-system-helpers
Description: container harness self-check
 A service that counts its starts and a socket that answers one line.
EOF
  echo /etc/harness-probe.conf >"$pkg/DEBIAN/conffiles"
  echo "greeting harness-probe" >"$pkg/etc/harness-probe.conf"
  cat >"$pkg/usr/lib/harness-probe/probe" <<'EOF'
#!/bin/sh
set -e
mkdir -p /var/lib/harness-probe
n=$(cat /var/lib/harness-probe/starts 2>/dev/null || echo 0)
echo $((n + 1)) >/var/lib/harness-probe/starts
exec sleep infinity
EOF
  chmod 0755 "$pkg/usr/lib/harness-probe/probe"
  cat >"$pkg/lib/systemd/system/harness-probe.service" <<'EOF'
[Unit]
Description=harness probe

[Service]
ExecStart=/usr/lib/harness-probe/probe

[Install]
WantedBy=multi-user.target
EOF
  cat >"$pkg/lib/systemd/system/harness-probe-echo.socket" <<'EOF'
[Unit]
Description=harness probe echo

[Socket]
ListenStream=127.0.0.1:4347
Accept=yes

[Install]
WantedBy=sockets.target
EOF
  cat >"$pkg/lib/systemd/system/harness-probe-echo@.service" <<'EOF'
[Unit]
Description=harness probe echo answer

[Service]
ExecStart=/bin/sed -n "s/^greeting //p" /etc/harness-probe.conf
StandardInput=null
StandardOutput=socket
EOF
  # The maintainer scripts follow what debhelper writes for a service.
  cat >"$pkg/DEBIAN/postinst" <<'EOF'
#!/bin/sh
set -e
if [ "$1" = configure ]; then
  deb-systemd-helper enable harness-probe.service harness-probe-echo.socket
  if [ -d /run/systemd/system ]; then
    systemctl --system daemon-reload
    deb-systemd-invoke restart harness-probe.service harness-probe-echo.socket
  fi
fi
EOF
  cat >"$pkg/DEBIAN/prerm" <<'EOF'
#!/bin/sh
set -e
if [ -d /run/systemd/system ] && [ "$1" = remove ]; then
  deb-systemd-invoke stop harness-probe.service harness-probe-echo.socket
fi
EOF
  cat >"$pkg/DEBIAN/postrm" <<'EOF'
#!/bin/sh
set -e
if [ -d /run/systemd/system ]; then
  systemctl --system daemon-reload || true
fi
if [ "$1" = purge ]; then
  deb-systemd-helper purge harness-probe.service harness-probe-echo.socket
  rm -rf /var/lib/harness-probe
fi
EOF
  chmod 0755 "$pkg/DEBIAN/postinst" "$pkg/DEBIAN/prerm" "$pkg/DEBIAN/postrm"
  dpkg-deb --root-owner-group -Zxz --build "$pkg" "$BOX_WORK/harness-probe_1.0_all.deb" >/dev/null ||
    box_fail "dpkg-deb could not build the harness-probe package"
}

# The probe service has counted N starts (it counts as it comes up, just
# after systemd calls it active).
probe_starts_are() { [ "$(in_box cat /var/lib/harness-probe/starts)" = "$1" ]; }

# The probe's echo socket, read from inside the box.
self_check_echo() {
  in_box bash -c 'exec 3<>/dev/tcp/127.0.0.1/4347 && timeout 5 cat <&3'
}

self_check() {
  self_check_sources
  self_check_build_package
  build_or_reuse_root
  boot

  local deb=/opt/harness/harness-probe_1.0_all.deb pid1 pid2
  copy_in "$BOX_WORK/harness-probe_1.0_all.deb" "$deb"
  echo "ok: copied the package into the box"
  check "the box has no network but its own loopback" \
    in_box sh -c '[ "$(ls /sys/class/net)" = lo ]'
  check_silent "nothing listens on port 4347 before the install" \
    in_box ss -Hlntu "sport = :4347"

  check "apt installs the local package with the box offline" \
    in_box sh -c "cd /opt/harness && apt-get install -y ./$(basename "$deb")"
  check_eq "dpkg-query: harness-probe is installed" "install ok installed" box_pkg_status harness-probe
  check_silent "dpkg --audit reports nothing" in_box dpkg --audit
  wait_until "harness-probe.service is active" 20 in_box systemctl is-active harness-probe || exit 1
  check_eq "harness-probe.service is enabled" enabled in_box systemctl is-enabled harness-probe
  check_eq "harness-probe-echo.socket is active" active in_box systemctl is-active harness-probe-echo.socket
  check "port 4347 is open" box_port_open 4347
  check_eq "port 4347 answers from the installed configuration" harness-probe self_check_echo
  wait_until "the service has started once" 10 probe_starts_are 1 || exit 1

  # The audit check has teeth: a package left unpacked but not configured
  # is reported.
  check "dpkg --unpack leaves harness-probe unconfigured" in_box dpkg --unpack "$deb"
  check_eq "dpkg-query: harness-probe is unpacked" "install ok unpacked" box_pkg_status harness-probe
  check "dpkg --audit names the unconfigured package" \
    in_box sh -c 'dpkg --audit | grep -q harness-probe'
  check "dpkg --configure -a finishes it" in_box dpkg --configure -a
  check_silent "dpkg --audit reports nothing again" in_box dpkg --audit
  wait_until "configuring restarted the service" 10 probe_starts_are 2 || exit 1

  pid1=$(box_main_pid harness-probe)
  check "systemctl restart harness-probe" in_box systemctl restart harness-probe
  pid2=$(box_main_pid harness-probe)
  check_eq "harness-probe.service is active after the restart" active in_box systemctl is-active harness-probe
  check "the restart started a new process ($pid1 -> $pid2)" \
    test "$pid1" != "$pid2" -a "$pid1" -gt 0 -a "$pid2" -gt 0
  wait_until "the restart counted its start" 10 probe_starts_are 3 || exit 1

  check "apt remove harness-probe" in_box apt-get remove -y harness-probe
  check_eq "dpkg-query: only its configuration is left" "deinstall ok config-files" \
    box_pkg_status harness-probe
  check "its process $pid2 is gone" in_box sh -c "! test -d /proc/$pid2"
  check "harness-probe.service is no longer active" \
    in_box sh -c '! systemctl -q is-active harness-probe'
  check "port 4347 is closed" box_port_closed 4347
  check "its state /var/lib/harness-probe is kept" in_box test -d /var/lib/harness-probe
  check "its conffile is kept" in_box test -f /etc/harness-probe.conf
  check_silent "dpkg --audit reports nothing after the removal" in_box dpkg --audit

  check "apt purge harness-probe" in_box apt-get purge -y harness-probe
  check "dpkg knows nothing more of harness-probe" box_pkg_gone harness-probe
  check "the purge removed /var/lib/harness-probe" in_box sh -c '! test -e /var/lib/harness-probe'
  check "the purge removed the conffile" in_box sh -c '! test -e /etc/harness-probe.conf'
  check "the purge removed the service's enablement" \
    in_box sh -c '! test -L /etc/systemd/system/multi-user.target.wants/harness-probe.service'

  local t0
  t0=$(box_now)
  power_off 30 || box_fail "the box did not power off in order within 30 s"
  grep -q "has been shut down" "$BOX_WORK/console.log" ||
    { box_console_tail; box_fail "the box console does not show an orderly shut down"; }
  echo "ok: the box powered off in order ($(box_since "$t0") s)"
}
