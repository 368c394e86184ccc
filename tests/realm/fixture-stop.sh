#!/usr/bin/env bash
# Cleanup of the fixture: stop the realm, then prove that its KDC is gone.
# usage: fixture-stop.sh REALM_SH DIR
set -euo pipefail
. "$(dirname "$0")/testlib.sh"
REALM_SH=$1
dir=$2

pid="" watchdog=""
[ ! -f "$dir/kdc.pid" ] || read -r pid <"$dir/kdc.pid"
[ ! -f "$dir/watchdog.pid" ] || read -r watchdog <"$dir/watchdog.pid"
started=0
[ ! -f "$dir/env" ] || started=1

bash "$REALM_SH" stop "$dir" || fail "realm.sh stop $dir failed"

if [ -n "$pid" ]; then
  ! is_live_kdc "$pid" || fail "the KDC (pid $pid) still runs after stop"
  ok "the KDC (pid $pid) is gone"
fi
if [ -n "$watchdog" ] && kill -0 "$watchdog" 2>/dev/null &&
   tr '\0' '\n' <"/proc/$watchdog/environ" 2>/dev/null | grep -q '^OSTREL_REALM_WATCHDOG='; then
  fail "the watchdog (pid $watchdog) still runs after stop"
fi
[ -d "$dir" ] || { ok "no realm at $dir"; exit 0; }
left=$(kdcs_of "$(cd "$dir" && pwd -P)")
[ -z "$left" ] || fail "KDC processes of $dir still run: $left"
[ ! -e "$dir/kdc.pid" ] || fail "$dir/kdc.pid left behind"
# A realm that started must still have had its KDC when the run ended.
[ "$started" = 0 ] || [ -n "$pid" ] || fail "the realm's KDC was already gone before the cleanup"
ok "no KDC of $dir remains"
