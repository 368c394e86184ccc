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

WORK=$(mktemp -d "${TMPDIR:-/tmp}/ostrel-login-bench.XXXXXX")
REALM=$WORK/realm
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  if [ -f "$REALM/realm.state" ]; then
    "$ROOT/tests/realm/realm.sh" destroy "$REALM" >/dev/null 2>&1 || status=1
  fi
  rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

"$ROOT/tests/realm/realm.sh" start "$REALM" --watch $$ >"$WORK/realm.log" 2>&1 ||
  { cat "$WORK/realm.log" >&2; exit 1; }
# shellcheck disable=SC1091
. "$REALM/env.sh"

echo "### replay cache on"
"$BENCH" "$@"
echo
echo "### replay cache off"
KRB5RCACHETYPE=none "$BENCH" "$@"
