#!/usr/bin/env bash
# The fixture's realm works, through the environment the build gives its consumers.
# usage: selftest.sh REALM_SH MAX_LIFE RENEW_LIFE
set -euo pipefail
. "$(dirname "$0")/testlib.sh"
REALM_SH=$1
MAX_LIFE=$2
RENEW_LIFE=$3

dir=${OSTREL_REALM_DIR:?the test lacks the realm environment (ostrel_realm_require)}
[ -f "$dir/env" ] || fail "$dir/env missing: the realm did not start"

# The build's environment is the realm's: a consumer needs nothing else but the port.
n=0
while IFS='=' read -r name value; do
  [ "$name" != OSTREL_KDC_PORT ] || { port=$value; continue; }
  [ "${!name-}" = "$value" ] || fail "$name is '${!name-}' in the test's environment, '$value' in the realm"
  n=$((n + 1))
done <"$dir/env"
[ "$n" -ge 14 ] || fail "only $n variables in $dir/env"
grep -qF "kdc = 127.0.0.1:$port" "$KRB5_CONFIG" || fail "krb5.conf does not name port $port"
ok "environment matches the realm (KDC on port $port)"

# Tests running in parallel share the default cache: use a private one.
export KRB5CCNAME=FILE:$dir/selftest.ccache
realm=$OSTREL_REALM

run_ok bash "$REALM_SH" kinit "$dir" "$OSTREL_USER1" --ccache "$KRB5CCNAME" --lifetime 2m --renewable 10m >/dev/null
list=$(run_ok klist)
grep -qF "Default principal: $OSTREL_USER1@$realm" <<<"$list" || fail "klist: $list"
grep -qF "krbtgt/$realm@$realm" <<<"$list" || fail "no ticket-granting ticket: $list"
life=$(ticket_seconds "$list") || fail "cannot read times from: $list"
(( life >= 115 && life <= 120 )) || fail "asked for 2m, got ${life}s: $list"
renew=$(renew_seconds "$list") || fail "the ticket is not renewable: $list"
(( renew >= 595 && renew <= 600 )) || fail "asked to renew for 10m, got ${renew}s: $list"
ok "kinit $OSTREL_USER1 with a 2 minute ticket renewable for 10 minutes"

run_ok kvno "$OSTREL_SPN" | grep -qF "$OSTREL_SPN@$realm: kvno =" || fail "kvno $OSTREL_SPN"
grep -qF "$OSTREL_SPN@$realm" <<<"$(klist)" || fail "no service ticket in: $(klist)"
ok "kvno $OSTREL_SPN; klist shows the service ticket"

keys=$(run_ok klist -k "$KRB5_KTNAME")
for spn in "$OSTREL_SPN" "$OSTREL_SPN_HOST"; do
  grep -qF " $spn@$realm" <<<"$keys" || fail "keytab lacks $spn: $keys"
done
! grep -qF "$OSTREL_SPN_NO_KEY@" <<<"$keys" || fail "keytab holds $OSTREL_SPN_NO_KEY: $keys"
run_ok kvno "$OSTREL_SPN_NO_KEY" >/dev/null
ok "keytab holds $OSTREL_SPN and $OSTREL_SPN_HOST; the KDC knows $OSTREL_SPN_NO_KEY, the keytab does not"

# The second user, with plain kinit and the password on stdin, as a consumer would.
kinit -c "FILE:$dir/selftest2.ccache" "$OSTREL_USER2" <<<"$OSTREL_PASS2" >/dev/null ||
  fail "kinit $OSTREL_USER2 with OSTREL_PASS2"
grep -qF "Default principal: $OSTREL_USER2@$realm" <<<"$(klist -c "FILE:$dir/selftest2.ccache")" ||
  fail "no ticket for $OSTREL_USER2"
kdestroy -c "FILE:$dir/selftest2.ccache"
ok "kinit $OSTREL_USER2"

expect_fail_with "Password incorrect" bash "$REALM_SH" kinit "$dir" "$OSTREL_USER1" --ccache "$KRB5CCNAME" --password wrong-password
expect_fail_with "not found in Kerberos database" bash "$REALM_SH" kinit "$dir" carol --ccache "$KRB5CCNAME" --password x
ok "wrong password and unknown user are refused"

if max=$(to_seconds "$MAX_LIFE") && max_renew=$(to_seconds "$RENEW_LIFE"); then
  run_ok bash "$REALM_SH" kinit "$dir" "$OSTREL_USER1" --ccache "$KRB5CCNAME" \
    --lifetime 7d --renewable 30d >/dev/null
  list=$(klist)
  life=$(ticket_seconds "$list") || fail "cannot read times from: $list"
  (( life <= max && life >= max - 5 )) ||
    fail "asked for 7d with a realm maximum of $MAX_LIFE, got ${life}s"
  renew=$(renew_seconds "$list") || fail "the ticket is not renewable: $list"
  (( renew <= max_renew && renew >= max_renew - 5 )) ||
    fail "asked to renew for 30d with a realm maximum of $RENEW_LIFE, got ${renew}s"
  ok "tickets are capped at the realm's maximum life ($MAX_LIFE) and renewable life ($RENEW_LIFE)"
else
  echo "note: lifetimes '$MAX_LIFE' / '$RENEW_LIFE' not in a simple form; caps not checked"
fi
kdestroy
