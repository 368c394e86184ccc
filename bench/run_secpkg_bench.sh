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

WORK=$(mktemp -d "${TMPDIR:-/tmp}/ostrel-secpkg-bench.XXXXXX")
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
"$ROOT/tests/realm/realm.sh" kinit "$REALM" "$OSTREL_USER1" >/dev/null
"$BENCH" "$@"
