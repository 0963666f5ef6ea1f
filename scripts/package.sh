#!/usr/bin/env bash
# Builds the Debian package: build-pkg/varlo_VERSION_ARCH.deb, beside it the
# source package (.dsc, .tar.xz), .buildinfo and .changes, and lintian's
# verdict on them all in build-pkg/lintian.txt.
#
#   scripts/package.sh [--version X.Y.Z] [--reuse] [--no-lintian]
#
# The version is the project's (project() in CMakeLists.txt) unless
# --version gives another: the package and the agent inside it both carry
# it, so "a newer build of the same code" is --version 5.6.1. Each part of it
# stays below 16 (the probe reply has one hexadecimal digit for each).
# The build runs in a copy of the source (build-pkg/varlo-VERSION/), where
# debian/changelog is written; the work tree is never changed. With --reuse,
# a package built from the same files is kept instead of built again.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  sed -n 's/^#   //p' "$0" >&2
  exit 2
}

version=""
reuse=0
lintian=1
while [ $# -gt 0 ]; do
  case $1 in
    --version) [ $# -ge 2 ] || usage; version=$2; shift 2 ;;
    --version=*) version=${1#--version=}; shift ;;
    --reuse) reuse=1; shift ;;
    --no-lintian) lintian=0; shift ;;
    *) usage ;;
  esac
done

project_version=$(sed -n 's/^project(varlo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
version=${version:-$project_version}
part='([0-9]|1[0-5])'
if ! [[ $version =~ ^$part\.$part\.$part$ ]]; then
  echo "package.sh: version '$version' is not X.Y.Z with each part from 0 to 15" >&2
  exit 2
fi

./scripts/deps.sh package

out=build-pkg
tree=$out/varlo-$version
arch=$(dpkg --print-architecture)
deb=$out/varlo_${version}_${arch}.deb
mkdir -p "$out"

# The files of the work tree that git would commit (tracked, or new and not
# ignored), else everything outside the build folders.
stage() {
  rm -rf "$tree"
  mkdir -p "$tree"
  if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
      while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
      tar --null -T - -cf - | tar -xf - -C "$tree"
  else
    tar --exclude='./build*' --exclude=./.git -cf - . | tar -xf - -C "$tree"
  fi
}
stage

# The changelog's date is the last commit's, so that the same sources make
# the same package.
when=$(git log -1 --format=%cD 2>/dev/null || date -R)
commit=$(git rev-parse --short HEAD 2>/dev/null || echo "a source tree without git")
maintainer=$(sed -n 's/^Maintainer: //p' "$tree/debian/control")
cat > "$tree/debian/changelog" <<EOF
varlo ($version) unstable; urgency=medium

  * Built from $commit.

 -- $maintainer  $when
EOF

# What the package is made from, to tell whether a built one is current.
fingerprint=$( (cd "$tree" && find . -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum) |
  sha256sum | cut -d' ' -f1)
stamp=$deb.sources
if [ "$reuse" = 1 ] && [ -f "$deb" ] && [ "$(cat "$stamp" 2>/dev/null)" = "$fingerprint" ]; then
  echo "package.sh: $deb is current; not built again"
else
  rm -f "$stamp"
  jobs=$(nproc)
  [ "$jobs" -gt 2 ] && jobs=2
  (cd "$tree" && DEB_BUILD_OPTIONS="parallel=$jobs" dpkg-buildpackage -us -uc) > "$out/build.log" 2>&1 || {
    tail -n 15 "$out/build.log" >&2
    echo "package.sh: dpkg-buildpackage failed; the whole output is in $out/build.log" >&2
    exit 1
  }
  echo "$fingerprint" > "$stamp"
  echo "package.sh: built $deb"
fi

if [ "$lintian" = 1 ]; then
  changes=$out/varlo_${version}_${arch}.changes
  # --fail-on error,warning: anything above an informational tag fails.
  if ! lintian --fail-on error,warning "$changes" > "$out/lintian.txt" 2>&1; then
    cat "$out/lintian.txt" >&2
    echo "package.sh: lintian found errors or warnings (see above)" >&2
    exit 1
  fi
  echo "package.sh: lintian reports no error and no warning on $changes"
fi
