#!/usr/bin/env bash
# Runs bench_secpkg against a throwaway realm, with a ticket of the realm's first
# user in the default credential cache.
#
#   bench/run_secpkg_bench.sh [BUILD_DIR] [bench_secpkg flags...]
#
# BUILD_DIR defaults to build/default (built target bench_secpkg).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build/default}
[ $# -eq 0 ] || shift
BENCH=$BUILD/bench/bench_secpkg
[ -x "$BENCH" ] || { echo "no $BENCH: build the target bench_secpkg first" >&2; exit 1; }
exec "$ROOT/bench/with-realm.sh" "$BENCH" "$@"
