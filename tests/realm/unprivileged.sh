#!/usr/bin/env bash
# The realm as an unprivileged user: root switches to nobody to run it. Exit 77: skipped.
# usage: unprivileged.sh REALM_SH
set -euo pipefail
. "$(dirname "$0")/testlib.sh"
REALM_SH=$1

[ "$(id -u)" = 0 ] || { echo "skipped: needs root to switch users"; exit 77; }
command -v setpriv >/dev/null || { echo "skipped: no setpriv"; exit 77; }
uid=$(id -u nobody 2>/dev/null) || { echo "skipped: no user nobody"; exit 77; }
gid=$(id -g nobody)
as_nobody() {
  setpriv --reuid="$uid" --regid="$gid" --clear-groups \
    env -i PATH=/usr/bin:/bin HOME="$work" LC_ALL=C "$@"
}
work=$(mktemp -d /tmp/ostrel-realm-nobody.XXXXXX)
trap 'bash "$REALM_SH" destroy "$work/realm" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
chown "$uid:$gid" "$work"
as_nobody test -r "$REALM_SH" || { echo "skipped: nobody cannot read $REALM_SH"; exit 77; }

run_ok as_nobody bash "$REALM_SH" start "$work/realm" --watch $$ >/dev/null
pid=$(<"$work/realm/kdc.pid")
owner=$(awk '/^Uid:/ {print $2}' "/proc/$pid/status")
[ "$owner" = "$uid" ] || fail "the KDC runs as uid $owner, not $uid"
run_ok as_nobody bash "$REALM_SH" kinit "$work/realm" alice >/dev/null
run_ok as_nobody bash "$REALM_SH" exec "$work/realm" kvno HTTP/localhost >/dev/null
run_ok as_nobody bash "$REALM_SH" destroy "$work/realm" >/dev/null
! is_live_kdc "$pid" || fail "KDC $pid survives destroy"
[ ! -e "$work/realm" ] || fail "destroy left $work/realm"
ok "start, kinit, kvno and destroy as nobody (uid $uid)"
