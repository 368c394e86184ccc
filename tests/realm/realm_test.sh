#!/usr/bin/env bash
# realm.sh's own tests. usage: realm_test.sh REALM_SH fixture MAX_LIFE | lifecycle WORK_DIR | nobody
#   fixture:   the fixture's realm, through the environment the build gives its consumers
#   lifecycle: private realms: restart of the KDC, taken ports, failures half-way, the watchdog, destroy
#   nobody:    the whole cycle as an unprivileged user (root only; exit 77: skipped)
set -euo pipefail
export LC_ALL=C PATH=$PATH:/usr/sbin:/sbin
REALM_SH=$1
realm() { bash "$REALM_SH" "$@"; }
fail() { echo "FAIL: $*" >&2; exit 1; }
ok() { echo "ok: $*"; }
# CMD must fail and say TEXT.
fails_with() { local text=$1 out; shift; ! out=$("$@" 2>&1) || fail "'$*' succeeded"; grep -qF -- "$text" <<<"$out" || fail "'$*': $out"; }
kdcs() {  # live KDCs of a realm, found without realm.sh
  for p in /proc/[0-9]*; do
    read -r comm 2>/dev/null <"$p/comm" && [ "$comm" = krb5kdc ] && ! grep -qs ") Z" "$p/stat" && grep -qxzsF "KRB5_KDC_PROFILE=$1/kdc.conf" "$p/environ" && echo "${p#/proc/}"
  done
  true
}

case $2 in
fixture)
  dir=${OSTREL_REALM_DIR:?the test lacks the realm environment (ostrel_realm_require)}
  while IFS='=' read -r name value; do
    [ "$name" = OSTREL_KDC_PORT ] || [ "${!name-}" = "$value" ] || fail "$name is '${!name-}' here, '$value' in the realm"
  done <"$dir/env"
  export KRB5CCNAME=FILE:$dir/selftest.ccache
  realm kinit "$dir" "$OSTREL_USER1" --ccache "$KRB5CCNAME" --lifetime 7d --renewable 30d || fail "kinit"
  line=$(klist | grep -m1 'krbtgt/')
  life=$(( $(date -d "$(awk '{print $3, $4}' <<<"$line")" +%s) - $(date -d "$(awk '{print $1, $2}' <<<"$line")" +%s) ))
  [ "$life" -le $(( ${3%m} * 60 )) ] && [ "$life" -ge $(( ${3%m} * 60 - 5 )) ] || fail "7d asked, $life s given: max life $3"
  fails_with "Password incorrect" realm kinit "$dir" "$OSTREL_USER1" --ccache "$KRB5CCNAME" --password wrong
  kdestroy -A
  ok "environment, kinit, lifetime cap ($3), a wrong password refused" ;;
lifecycle)
  base=$(mktemp -d "$3/lifecycle.XXXXXX")
  trap 'for d in "$base"/*/; do realm destroy "$d" >/dev/null 2>&1 || true; done; rm -rf "$base"' EXIT
  a=$base/a
  realm start "$a" --watch $$ >/dev/null || fail "start"
  port=$(sed -n 's/^OSTREL_KDC_PORT=//p' "$a/env")
  [ "$(kdcs "$a")" = "$(cat "$a/kdc.pid")" ] || fail "kdc.pid is not the KDC"
  realm stop-kdc "$a" && realm stop-kdc "$a" && [ -z "$(kdcs "$a")" ] || fail "stop-kdc"
  realm start-kdc "$a" && realm kinit "$a" bob || fail "start-kdc"
  fails_with "already running" realm start-kdc "$a"
  ok "stop-kdc, start-kdc on port $port"
  fails_with "already in use" realm start "$base/b" --port "$port"
  OSTREL_REALM_FIRST_PORT=$port realm start "$base/c" >/dev/null || fail "start on a taken port"
  [ "$(sed -n 's/^OSTREL_KDC_PORT=//p' "$base/c/env")" != "$port" ] && realm kinit "$base/c" alice || fail "two realms on $port"
  realm destroy "$base/c" && [ ! -e "$base/c" ] || fail "destroy"
  ok "a taken port is refused when given and skipped when found"
  OSTREL_REALM_FAULT=fail fails_with "no KDC left running" realm start "$base/d"
  fails_with "not empty" realm start "$base/d"
  OSTREL_REALM_FAULT=hang bash "$REALM_SH" start "$base/e" >/dev/null 2>&1 &
  for _ in $(seq 500); do [ -z "$(kdcs "$base/e")" ] || break; sleep 0.01; done
  [ -n "$(kdcs "$base/e")" ] || fail "no KDC for the stalled start"
  kill -TERM $! && ! wait $! || fail "an interrupted start reported success"
  [ -z "$(kdcs "$base/d")$(kdcs "$base/e")" ] || fail "a failed or interrupted start left a KDC"
  ok "a start failing or interrupted after the KDC is up leaves none"
  mkdir "$base/f" && touch "$base/f/keep"
  fails_with "not a realm" realm destroy "$base/f"
  sleep 60 &
  realm start "$base/g" --watch $! >/dev/null && kill $! || fail "start with a watch"
  for _ in $(seq 100); do [ -n "$(kdcs "$base/g")" ] || break; sleep 0.05; done
  [ -z "$(kdcs "$base/g")" ] || fail "the KDC outlived the watched process by 5 s"
  realm stop "$a" && realm stop "$a" && realm stop "$base/never" && [ -z "$(kdcs "$a")" ] || fail "stop"
  ok "destroy refuses a foreign directory; the watchdog; stop is idempotent" ;;
nobody)
  [ "$(id -u)" = 0 ] && command -v setpriv >/dev/null && uid=$(id -u nobody 2>/dev/null) || { echo "skipped"; exit 77; }
  work=$(mktemp -d /tmp/ostrel-realm-nobody.XXXXXX)
  trap 'realm destroy "$work/r" >/dev/null 2>&1; rm -rf "$work"' EXIT
  chown "$uid:$(id -g nobody)" "$work"
  as() { setpriv --reuid="$uid" --regid="$(id -g nobody)" --clear-groups env -i PATH=/usr/bin:/bin HOME="$work" "$@"; }
  as test -r "$REALM_SH" || { echo "skipped: nobody cannot read $REALM_SH"; exit 77; }
  as bash "$REALM_SH" start "$work/r" --watch $$ >/dev/null || fail "start as nobody"
  [ "$(awk '/^Uid:/ {print $2}' "/proc/$(cat "$work/r/kdc.pid")/status")" = "$uid" ] || fail "the KDC does not run as nobody"
  as bash "$REALM_SH" kinit "$work/r" alice && as bash "$REALM_SH" exec "$work/r" kvno HTTP/localhost >/dev/null &&
    as bash "$REALM_SH" destroy "$work/r" && [ ! -e "$work/r" ] || fail "kinit, kvno, destroy as nobody"
  ok "the whole cycle as nobody" ;;
*) echo "usage: realm_test.sh REALM_SH fixture MAX_LIFE | lifecycle WORK_DIR | nobody" >&2; exit 2 ;;
esac
