#!/usr/bin/env bash
# Builds and runs every test: the normal build, the address+undefined and the
# thread sanitizer builds, the clang build and a short run of its fuzzers, and the
# Windows cross-build under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

# Each part's time, for the summary at the end.
timings=()
timed() {
  local name=$1 start=$SECONDS
  shift
  "$@"
  timings+=("${name} $((SECONDS - start)) s")
}

timed packages bash scripts/install-packages.sh

# Each suite's output is kept for the total at the end.
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

run_preset() {
  local preset=$1
  echo "=== ${preset}: configure, build, test"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset" | tee "$logs/$preset.log"
}

windows() {
  echo "=== windows: cross-build, test under Wine"
  bash scripts/windows-tests.sh | tee "$logs/windows.log"
}

timed default run_preset default
timed asan run_preset asan
timed tsan run_preset tsan
timed clang run_preset clang
timed fuzz bash scripts/fuzz.sh 8
timed windows windows
total=0
failed=0
while read -r line; do
  out_of=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
  bad=$(sed -E 's/.*passed, ([0-9]+) tests failed.*/\1/' <<<"$line")
  total=$((total + out_of))
  failed=$((failed + bad))
done < <(cat "$logs"/*.log | grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+')
# CTest counts a skipped test among the passed; it is not.
skipped=$(cat "$logs"/*.log | grep -cE '^[[:space:]]+[0-9]+ - .* \(Skipped\)$' || true)
echo "=== time: $(printf '%s, ' "${timings[@]}")in all ${SECONDS} s"
echo "=== all test suites passed"
echo "$((total - failed - skipped)) passed, ${failed} failed, ${skipped} skipped"
