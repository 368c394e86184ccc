#!/usr/bin/env bash
# Runs bench_login against a throwaway realm, once with Kerberos's replay cache on
# (the default) and once with it off (KRB5RCACHETYPE=none, read once per process).
#
#   bench/run_login_bench.sh [BUILD_DIR] [bench_login flags...]
#
# BUILD_DIR defaults to build/default (configured with benchmarks on, built
# target bench_login). Flags go to both runs, e.g. --logins=2000 --rounds=7.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build/default}
[ $# -eq 0 ] || shift
BENCH=$BUILD/bench/bench_login
[ -x "$BENCH" ] || { echo "no $BENCH: build the target bench_login first" >&2; exit 1; }

echo "### replay cache on"
"$ROOT/bench/with-realm.sh" "$BENCH" "$@"
echo
echo "### replay cache off"
KRB5RCACHETYPE=none "$ROOT/bench/with-realm.sh" "$BENCH" "$@"
