#!/usr/bin/env bash
# Runs bench_sspi against a throwaway realm, with a ticket of a principal named after the
# local account "nobody" in the default cache (impersonation needs a local account; run as
# root for the kernel's ids to switch).
#
#   bench/run_sspi_bench.sh [BUILD_DIR] [bench_sspi flags...]
#
# BUILD_DIR defaults to build/default (built target bench_sspi).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build/default}
[ $# -eq 0 ] || shift
BENCH=$BUILD/bench/bench_sspi
[ -x "$BENCH" ] || { echo "no $BENCH: build the target bench_sspi first" >&2; exit 1; }
exec "$ROOT/bench/with-realm.sh" bash -c '
  "$0" exec "$OSTREL_REALM_DIR" kadmin.local -q "addprinc -pw Ostrel-bench-pw nobody" >/dev/null &&
  "$0" kinit "$OSTREL_REALM_DIR" nobody --password Ostrel-bench-pw >/dev/null &&
  exec "$@"' "$ROOT/tests/realm/realm.sh" "$BENCH" "$@"
