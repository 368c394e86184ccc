#!/usr/bin/env bash
# Runs bench_login against a throwaway realm, once with Kerberos's replay cache on
# (the default) and once with it off (KRB5RCACHETYPE=none, read once per process).
#
#   bench/run_login_bench.sh [BUILD_DIR] [--program=NAME] [flags...]
#
# BUILD_DIR defaults to build/default (configured with benchmarks on, built
# target bench_login). Flags go to both runs, e.g. --logins=2000 --rounds=7.
# --program=bench_session_soak runs the soak of abandoned logins instead, once,
# with the replay cache off.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build/default}
[ $# -eq 0 ] || shift
PROGRAM=bench_login
if [ "${1:-}" != "${1#--program=}" ]; then
  PROGRAM=${1#--program=}
  shift
fi
BENCH=$BUILD/bench/$PROGRAM
[ -x "$BENCH" ] || { echo "no $BENCH: build the target $PROGRAM first" >&2; exit 1; }

if [ "$PROGRAM" != bench_login ]; then
  KRB5RCACHETYPE=none "$ROOT/bench/with-realm.sh" "$BENCH" "$@"
  exit
fi
echo "### replay cache on"
"$ROOT/bench/with-realm.sh" "$BENCH" "$@"
echo
echo "### replay cache off"
KRB5RCACHETYPE=none "$ROOT/bench/with-realm.sh" "$BENCH" "$@"
