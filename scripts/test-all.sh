#!/usr/bin/env bash
# Builds and runs every test: the normal build, the address+undefined and the
# thread sanitizer builds, and the Windows cross-build under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-packages.sh

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

run_preset default
run_preset asan
run_preset tsan
if [ -x scripts/windows-tests.sh ] || [ -f scripts/windows-tests.sh ]; then
  echo "=== windows: cross-build, test under Wine"
  bash scripts/windows-tests.sh | tee "$logs/windows.log"
fi
total=0
failed=0
while read -r line; do
  out_of=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
  bad=$(sed -E 's/.*passed, ([0-9]+) tests failed.*/\1/' <<<"$line")
  total=$((total + out_of))
  failed=$((failed + bad))
done < <(cat "$logs"/*.log | grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+')
echo "=== all test suites passed"
echo "$((total - failed)) passed, ${failed} failed"
