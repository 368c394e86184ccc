#!/usr/bin/env bash
# Builds and runs every test: the normal build, the address+undefined and the
# thread sanitizer builds, and the Windows cross-build under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-packages.sh

run_preset() {
  local preset=$1
  echo "=== ${preset}: configure, build, test"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
}

run_preset default
run_preset asan
run_preset tsan
if [ -x scripts/windows-tests.sh ] || [ -f scripts/windows-tests.sh ]; then
  echo "=== windows: cross-build, test under Wine"
  bash scripts/windows-tests.sh
fi
echo "=== all test suites passed"
