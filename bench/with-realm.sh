#!/usr/bin/env bash
# Runs a command against a throwaway realm started for it and destroyed after:
# with the realm's environment (env.sh) and a ticket of its first user in the
# realm's default credential cache. Exits with the command's status.
#
#   bench/with-realm.sh CMD [ARG...]
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
WORK=$(mktemp -d "${TMPDIR:-/tmp}/ostrel-bench.XXXXXX")
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
"$@"
