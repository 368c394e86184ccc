#!/usr/bin/env bash
# realm.sh on private realms: restart of the KDC, failures half-way, interruption, the watchdog.
# usage: lifecycle.sh REALM_SH WORK_DIR
set -euo pipefail
. "$(dirname "$0")/testlib.sh"
REALM_SH=$1
base=$(mktemp -d "$2/lifecycle.XXXXXX")
base=$(cd "$base" && pwd -P)
realm() { bash "$REALM_SH" "$@"; }

cleanup() {
  local d
  for d in "$base"/*/; do
    [ ! -f "$d/realm.state" ] || realm destroy "$d" >/dev/null 2>&1 || true
  done
  rm -rf "$base"
}
trap cleanup EXIT

a=$base/a
t0=$(date +%s%N)
# Watched by this script, so even a killed test leaves no KDC behind.
run_ok realm start "$a" --watch $$ >/dev/null
echo "start took $((($(date +%s%N) - t0) / 1000000)) ms"
pid=$(<"$a/kdc.pid")
is_live_kdc "$pid" || fail "kdc.pid $pid is not a running KDC"
[ "$(kdcs_of "$a")" = "$pid" ] || fail "the KDCs of $a are '$(kdcs_of "$a")', not $pid"
port=$(sed -n 's/^OSTREL_KDC_PORT=//p' "$a/env")
run_ok realm kinit "$a" alice >/dev/null
ok "started, kinit works"

run_ok realm stop-kdc "$a" >/dev/null
! is_live_kdc "$pid" || fail "KDC $pid still runs after stop-kdc"
[ ! -e "$a/kdc.pid" ] || fail "kdc.pid left after stop-kdc"
expect_fail_with "Cannot contact any KDC" realm kinit "$a" alice
run_ok realm stop-kdc "$a" >/dev/null
ok "after stop-kdc kinit cannot contact the KDC; stop-kdc again is harmless"

run_ok realm start-kdc "$a" >/dev/null
pid2=$(<"$a/kdc.pid")
{ [ "$pid2" != "$pid" ] && is_live_kdc "$pid2"; } || fail "no new KDC after start-kdc"
run_ok realm kinit "$a" bob >/dev/null
run_ok realm exec "$a" kvno HTTP/localhost >/dev/null
expect_fail_with "already running" realm start-kdc "$a"
ok "start-kdc brings the same realm back on port $port"

expect_fail_with "already in use" realm start "$base/b" --port "$port"
[ -z "$(kdcs_of "$base/b")" ] || fail "a KDC of $base/b runs after a failed start"
ok "a taken port given with --port is refused"

OSTREL_REALM_FIRST_PORT=$port run_ok realm start "$base/c" >/dev/null
port_c=$(sed -n 's/^OSTREL_KDC_PORT=//p' "$base/c/env")
[ "$port_c" != "$port" ] || fail "two realms on port $port"
run_ok realm kinit "$base/c" alice >/dev/null
run_ok realm destroy "$base/c" >/dev/null
[ ! -e "$base/c" ] || fail "destroy left $base/c"
ok "a taken port found by chance is skipped (got $port_c); destroy removes the realm"

OSTREL_REALM_FAULT=after-kdc expect_fail_with "no KDC left running" realm start "$base/d"
[ -z "$(kdcs_of "$base/d")" ] || fail "a failed start left a KDC: $(kdcs_of "$base/d")"
[ ! -e "$base/d/kdc.pid" ] || fail "a failed start left kdc.pid"
expect_fail_with "not empty" realm start "$base/d"
ok "a start failing after the KDC is up leaves none; a used directory is refused"

OSTREL_REALM_FAULT=hang-after-kdc bash "$REALM_SH" start "$base/g" >"$base/g.out" 2>&1 &
starter=$!
for _ in $(seq 1 500); do
  grep -q 'stalling on purpose' "$base/g.out" && break
  sleep 0.01
done
[ -n "$(kdcs_of "$base/g")" ] || fail "the stalled start has no KDC: $(cat "$base/g.out")"
kill -TERM "$starter"
rc=0
wait "$starter" || rc=$?
[ "$rc" -ne 0 ] || fail "an interrupted start reported success"
[ -z "$(kdcs_of "$base/g")" ] || fail "an interrupted start left a KDC: $(kdcs_of "$base/g")"
ok "a start interrupted with TERM leaves no KDC"

mkdir "$base/e"
echo keep >"$base/e/file"
expect_fail_with "not a realm" realm destroy "$base/e"
[ -f "$base/e/file" ] || fail "destroy removed a directory it did not make"
ok "destroy refuses a directory it did not make"

sleep 60 &
owner=$!
run_ok realm start "$base/f" --watch "$owner" >/dev/null
[ -n "$(kdcs_of "$base/f")" ] || fail "no KDC for $base/f"
kill "$owner"
wait "$owner" 2>/dev/null || true
for _ in $(seq 1 100); do
  [ -n "$(kdcs_of "$base/f")" ] || break
  sleep 0.05
done
[ -z "$(kdcs_of "$base/f")" ] || fail "the KDC outlived the watched process by 5 s"
ok "the KDC stops when the watched process (the test run) goes away"

run_ok realm stop "$a" >/dev/null
run_ok realm stop "$a" >/dev/null
run_ok realm stop "$base/never-made" >/dev/null
[ -z "$(kdcs_of "$a")" ] || fail "KDC of $a survives stop"
ok "stop is idempotent, also for a missing realm"
