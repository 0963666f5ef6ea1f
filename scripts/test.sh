#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test plainly, checks the
# Debian package (tests/package/check.sh) and takes it through install,
# update, remove and purge in a booted Debian root (tests/container/run.sh),
# then runs every test under AddressSanitizer and UndefinedBehaviorSanitizer,
# then the thread core under
# ThreadSanitizer, then each fuzz target briefly. Any failure or sanitizer
# report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh

jobs=$(nproc)

echo "== plain build"
./scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== Debian package: built (or reused) and checked, lintian included"
./tests/package/check.sh

echo "== container test: the package installed, updated to a newer build, removed and purged"
# A newer build of the same code: the next version up. Where no package
# could be built, or no box can run, it says "SKIP: reason" and goes on.
version=$(sed -n 's/^project(varlo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
IFS=. read -r major minor patch <<<"$version"
if [ "$patch" -lt 15 ]; then newer=$major.$minor.$((patch + 1)); else newer=$major.$((minor + 1)).0; fi
arch=$(dpkg --print-architecture)
if [ -f "build-pkg/varlo_${version}_$arch.deb" ]; then
  ./scripts/package.sh --reuse --no-lintian --version "$newer"
  tests/container/run.sh "build-pkg/varlo_${version}_$arch.deb" "build-pkg/varlo_${newer}_$arch.deb"
else
  echo "SKIP: no package was built here (see the package check above)"
fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
./scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DVARLO_SANITIZE=ON
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=66
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
ctest --test-dir build-asan --output-on-failure -j "$jobs"

# (varloctl's fleet workers too, but for the test that forks to lower its
# descriptor limit.)
echo "== ThreadSanitizer: the thread core's unit tests, then the plain end-to-end driver against a ThreadSanitizer agent"
# A driver built with ThreadSanitizer cannot enter the namespaces (its
# forked children are refused once the sanitizer has started a thread), so
# the sandboxed tests drive the sanitized agent from the plain driver.
./scripts/build.sh build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARLO_TSAN=ON
export TSAN_OPTIONS="halt_on_error=1:exitcode=66:second_deadlock_stack=1"
build-tsan/tests/varlo_tests --gtest_brief=1 \
  --gtest_filter='VLForeman*:WorkerSession*:HostDescription*:*MountProbe*:FileExt*:CensusAnswer*:Apps*:ListHeartbeat*:CServices*:VarloctlFleet*-VarloctlFleet.FewerWorkers*'
VARLO_AGENT="$PWD/build-tsan/varlo" VARLO_EXTRA_THREADS=1 build/tests/varlo_e2e_tests --gtest_brief=1
unset TSAN_OPTIONS

# -- fuzz smoke: every libFuzzer target for 20 s on its seed corpus (fuzz/run.sh)
echo "== fuzz smoke"
./fuzz/run.sh 20
# -- end fuzz smoke

echo "== all tests passed"
