#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test twice: once plainly,
# once under AddressSanitizer and UndefinedBehaviorSanitizer. Any failure or
# sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh

jobs=$(nproc)

echo "== plain build"
./scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
./scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DVARLO_SANITIZE=ON
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=66
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
ctest --test-dir build-asan --output-on-failure -j "$jobs"

# -- fuzz smoke: every libFuzzer target for 20 s on its seed corpus (fuzz/run.sh)
echo "== fuzz smoke"
./fuzz/run.sh 20
# -- end fuzz smoke

echo "== all tests passed"
