#!/usr/bin/env bash
# Builds the Debian package (or reuses a current one; scripts/package.sh
# fails on any lintian error or warning) and checks it: the files and where
# they go, the service unit, varloctl's bash completion, and the version
# plumbing.
# Skipped, with the reason, where the packaging tools cannot be installed.
set -uo pipefail
cd "$(dirname "$0")/../.."
root_dir=$PWD

if ! deps_out=$(./scripts/deps.sh package 2>&1); then
  echo "SKIP: the packaging tools could not be installed (scripts/deps.sh package):"
  tail -n 5 <<<"$deps_out"
  exit 0
fi
if ! ./scripts/package.sh --reuse; then
  echo "FAIL: scripts/package.sh"
  exit 1
fi

version=$(sed -n 's/^project(varlo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
deb=build-pkg/varlo_${version}_$(dpkg --print-architecture).deb
# Inside the work tree: the agent's checks mount scratch file systems on /tmp.
mkdir -p build-pkg
work=$(mktemp -d "$PWD/build-pkg/check.XXXXXX")
trap 'rm -rf "$work"' EXIT

passed=0
failed=0
ok() { passed=$((passed + 1)); }
fail() { failed=$((failed + 1)); echo "FAIL: $*"; }
# check WHAT COMMAND...: one assertion.
check() {
  local what=$1
  shift
  if "$@"; then ok; else fail "$what"; fi
}
is_root() { [ "$(id -u)" -eq 0 ] && command -v unshare >/dev/null; }

echo "== files"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $1, $6}' | sort -k2 > "$work/files"
cat > "$work/expected" <<'EOF'
-rw-r--r-- ./lib/systemd/system/varlo.service
-rwxr-xr-x ./usr/bin/varloctl
-rwxr-xr-x ./usr/sbin/varlo
-rw-r--r-- ./usr/share/bash-completion/completions/varloctl
-rw-r--r-- ./usr/share/doc/varlo/changelog.gz
-rw-r--r-- ./usr/share/doc/varlo/copyright
-rw-r--r-- ./usr/share/man/man1/varloctl.1.gz
-rw-r--r-- ./usr/share/man/man8/varlo.8.gz
EOF
check "the package holds exactly these files, with these modes: $(diff "$work/expected" "$work/files" | tr '\n' ' ')" \
  cmp -s "$work/expected" "$work/files"
dpkg-deb -x "$deb" "$work/root"
dpkg-deb -e "$deb" "$work/control"
check "the packaged unit is systemd/varlo.service" cmp -s systemd/varlo.service "$work/root/lib/systemd/system/varlo.service"
check "Version is $version" [ "$(dpkg-deb -f "$deb" Version)" = "$version" ]
for f in "$work"/root/usr/share/man/man*/*.gz; do
  check "$(basename "$f") formats without warnings" \
    bash -c "zcat '$f' | LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l -Tutf8 -Z - 2>&1 >/dev/null | (! grep .)"
done

echo "== the unit"
unit=$work/root/lib/systemd/system/varlo.service
for line in "Type=notify" "ExecStart=/usr/sbin/varlo nodaemon" "Restart=on-failure" "WantedBy=multi-user.target"; do
  check "the unit says $line" grep -qxF "$line" "$unit"
done
exposure=$(systemd-analyze security --offline=true "$unit" 2>/dev/null | sed -n 's/.*Overall exposure level for varlo.service: \([0-9.]*\).*/\1/p')
check "systemd-analyze rates the unit's exposure 4.5 or lower (got '${exposure}')" \
  awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 4.5) }'
if is_root; then
  # The package's /usr laid over the host's in a private mount namespace, so
  # the command and the man page the unit names are found; the host is not
  # touched.
  if out=$(unshare -m --propagation private sh -c \
    "mount -t overlay overlay -o lowerdir='$work/root/usr':/usr /usr && systemd-analyze verify '$unit'" 2>&1); then
    ok
  elif grep -q "overlay" <<<"$out"; then
    echo "SKIP: systemd-analyze verify (no overlay mount here: $out)"
  else
    fail "systemd-analyze verify: $out"
  fi
fi

# What the maintainer scripts do to the service and the agent's folders, and
# the packaged agent under systemd, are checked for real in a booted root
# (tests/container/run.sh).

echo "== bash completion"
mkdir -p "$work/cwd/sub"
touch "$work/cwd/a.txt" "$work/cwd/pkg.deb" "$work/cwd/hosts"
# A completion per line: the words typed (the last one being completed,
# '' for an empty one) | words that must be offered | words that must not.
(cd "$work/cwd" && bash -c '
  source /usr/share/bash-completion/bash_completion
  source "$1"
  compopt() { :; }  # the builtin works only inside a completion readline started
  while IFS="|" read -r line want refuse; do
    eval "words=($line)"
    COMP_WORDS=("${words[@]}")
    COMP_CWORD=$((${#words[@]} - 1))
    COMP_LINE="${words[*]}"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _varloctl varloctl "${words[COMP_CWORD]}" "${words[COMP_CWORD - 1]}"
    offered=" ${COMPREPLY[*]-} "
    for w in $want; do
      [[ $offered == *" $w "* ]] && echo ok || echo "FAIL: completing \"$line\" offers no $w (got:$offered)"
    done
    for w in $refuse; do
      [[ $offered != *" $w "* ]] && echo ok || echo "FAIL: completing \"$line\" offers $w"
    done
  done' run "$work/root/usr/share/bash-completion/completions/varloctl" <<'EOF'
varloctl ''|discover|census
varloctl 10.0.0.1 ''|census throughput notes volumes send update|discover
varloctl 10.0.0.1 cen|census|config
varloctl --password secret 10.0.0.1 ''|apps kill|
varloctl --timeout=5 10.0.0.1 ''|apps|
varloctl 10.0.0.1 notes ''|get set|
varloctl 10.0.0.1 volumes ''|local|
varloctl 10.0.0.1 send ''|a.txt pkg.deb sub|
varloctl 10.0.0.1 update ''|pkg.deb sub|a.txt
varloctl 10.0.0.1 send a.txt --|--folder --launch --json|--days --yes
varloctl 10.0.0.1 send a.txt --folder ''|XXXX desk font strt|
varloctl 10.0.0.1 census --|--days|--folder
varloctl 10.0.0.1 census --days ''||census
varloctl 10.0.0.1 reboot --|--yes|
varloctl 10.0.0.1 --|--version --parallel --password --help|--hosts-only
varloctl discover --|--hosts-only --broadcast --timeout|--password --parallel
varloctl @h|@hosts|
EOF
) > "$work/completion" 2>&1
passed=$((passed + $(grep -cx ok "$work/completion")))
failed=$((failed + $(grep -c '^FAIL' "$work/completion")))
grep -v -x ok "$work/completion"

echo "== version"
# A version outside what the probe reply can carry is refused before any
# build, by package.sh and by CMake alike.
for bad in 5.16.0 5.6 5.6.0.1 x.y.z; do
  out=$(./scripts/package.sh --version "$bad" 2>&1)
  status=$?
  check "package.sh --version $bad is refused (status $status: $out)" \
    bash -c '[ "$1" = 2 ] && grep -q "is not X.Y.Z" <<<"$2"' _ "$status" "$out"
done
check "CMake refuses VARLO_VERSION=5.6.16" \
  bash -c "! cmake -S . -B '$work/cm-bad' -G Ninja -DVARLO_TESTS=OFF -DVARLO_BENCH=OFF -DVARLO_VERSION=5.6.16 >/dev/null 2>&1"
cmake -S . -B "$work/cm" -G Ninja -DVARLO_TESTS=OFF -DVARLO_BENCH=OFF -DVARLO_VERSION=5.7.1 >/dev/null 2>&1
header=$(grep -ho 'kVersion[A-Za-z]* = "\?[0-9.]*' "$work/cm/generated/varlo/version.h" 2>/dev/null | tr '\n' ' ')
check "VARLO_VERSION=5.7.1 is the version compiled in (got: $header)" \
  [ "$header" = 'kVersionMajor = 5 kVersionMinor = 7 kVersionPatch = 1 kVersionText = "5.7.1 ' ]

cd "$root_dir"
echo "package: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
