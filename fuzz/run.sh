#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, build-fuzz/) and runs each for
# SECONDS (default 20) on a scratch copy of its seed corpus under
# fuzz/corpus/. One line per target; exits non-zero when any target finds a
# crash, a leak or a time-out. A finding's input is kept under
# build-fuzz/findings/TARGET/ and the target's output in build-fuzz/logs/.
#
#   ./fuzz/run.sh          # 20 s each, as scripts/test.sh runs it
#   ./fuzz/run.sh 600      # a longer search
#   ./fuzz/run.sh 60 route_dump worker_session   # only these targets
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: fuzz/run.sh [SECONDS [TARGET...]]" >&2
  exit 2
fi

./scripts/deps.sh
build=build-fuzz
mkdir -p "$build/logs"
configure() {
  [ -f "$build/CMakeCache.txt" ] ||
    CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DVARLO_FUZZ=ON -DVARLO_TESTS=OFF \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo
}
if ! { configure && cmake --build "$build" --target varlo_fuzzers -j "$(nproc)"; } \
  >"$build/logs/build.log" 2>&1; then
  cat "$build/logs/build.log" >&2
  echo "fuzz: the build failed" >&2
  exit 1
fi

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for source in fuzz/*.cc; do
    name=$(basename "$source" .cc)
    targets+=("$name")
  done
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

failed=0
for name in "${targets[@]}"; do
  binary="$build/fuzz/fuzz_$name"
  log="$build/logs/$name.log"
  findings="$build/findings/$name"
  if [ ! -x "$binary" ]; then
    echo "$name: FAILED (no such target)"
    failed=1
    continue
  fi
  corpus="$scratch/$name"
  mkdir -p "$corpus" "$findings"
  if [ -d "fuzz/corpus/$name" ]; then cp -R "fuzz/corpus/$name/." "$corpus/"; fi
  seeds=$(find "$corpus" -type f | wc -l)

  status=0
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1 || status=$?

  stats=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 || true)
  runs=$(sed -nE 's/^stat::number_of_executed_units:[[:space:]]*([0-9]+)/\1/p' "$log" | tail -n 1)
  rate=$(sed -nE 's/^stat::average_exec_per_sec:[[:space:]]*([0-9]+)/\1/p' "$log" | tail -n 1)
  cov=$(sed -nE 's/.*cov: ([0-9]+) ft: ([0-9]+) corp: ([0-9]+)\/.*/cov \1, features \2, corpus \3/p' \
    <<<"$stats")
  if [ "$status" -eq 0 ] && [ -n "$stats" ]; then
    echo "$name: ok, ${runs:-?} runs, ${rate:-?} exec/s, ${cov:-no coverage line}, $seeds seeds"
  else
    # "SUMMARY: AddressSanitizer: SEGV in f", "SUMMARY: libFuzzer: timeout", ...
    kind=$(grep -m 1 '^SUMMARY: ' "$log" | sed -E 's/^SUMMARY: //; s/ \([^)]*\)//g' || true)
    artifact=$(sed -nE 's/.*Test unit written to (.*)$/\1/p' "$log" | head -n 1)
    echo "$name: FAILED (exit $status${kind:+, $kind})${artifact:+ input: $artifact}; log: $log"
    failed=1
  fi
done

exit "$failed"
