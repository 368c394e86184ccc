#!/usr/bin/env bash
# http_host against the test realm, with curl as the browser.
#   http_host_test.sh HTTP_HOST NEGOTIATE_TOKENS PLUGIN WORK_DIR
# Needs the realm's environment (the CTest fixture kerberos_realm gives it).
set -uo pipefail

HOST_BIN=$1
TOKENS_BIN=$2
PLUGIN=$3
WORK=$4
: "${OSTREL_REALM_DIR:?needs the test realm (run through ctest)}"
REALM_SH=$(cd "$(dirname "${BASH_SOURCE[0]}")/../tests/realm" && pwd)/realm.sh
PRINCIPAL1="$OSTREL_USER1@$OSTREL_REALM"
PRINCIPAL2="$OSTREL_USER2@$OSTREL_REALM"

rm -rf "$WORK"
mkdir -p "$WORK"
HOST_PID=

stop_host() {
  [ -n "$HOST_PID" ] || return 0
  kill -TERM "$HOST_PID" 2>/dev/null
  local i
  for i in $(seq 50); do
    kill -0 "$HOST_PID" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$HOST_PID" 2>/dev/null
  wait "$HOST_PID" 2>/dev/null
  HOST_PID=
}
trap stop_host EXIT
trap 'stop_host; exit 130' INT
trap 'stop_host; exit 143' TERM

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
pass() { echo "ok:   $*"; }

# Own credential caches: the realm's default one is shared with other tests.
"$REALM_SH" kinit "$OSTREL_REALM_DIR" "$OSTREL_USER1" --ccache "$WORK/alice.ccache" >/dev/null ||
  { echo "kinit $OSTREL_USER1 failed"; exit 1; }
"$REALM_SH" kinit "$OSTREL_REALM_DIR" "$OSTREL_USER2" --ccache "$WORK/bob.ccache" >/dev/null ||
  { echo "kinit $OSTREL_USER2 failed"; exit 1; }
ALICE=FILE:$WORK/alice.ccache
BOB=FILE:$WORK/bob.ccache

# The plug-in's trace tells at the end how many half-done logins were left over.
OSTREL_TRACE=$WORK/trace.log "$HOST_BIN" --port 0 --port-file "$WORK/port" --plugin "$PLUGIN" --threads 4 \
  >"$WORK/host.out" 2>"$WORK/host.err" &
HOST_PID=$!
for _ in $(seq 100); do
  [ -s "$WORK/port" ] && break
  kill -0 "$HOST_PID" 2>/dev/null || break
  sleep 0.1
done
if [ ! -s "$WORK/port" ]; then
  echo "http_host did not start:"; cat "$WORK/host.out" "$WORK/host.err"
  exit 1
fi
# localhost, not 127.0.0.1: curl names the service after the host it was given.
URL=http://localhost:$(cat "$WORK/port")/

# curl with a fixed timeout; the response head goes to $WORK/head, the body to $WORK/body.
fetch() {
  rm -f "$WORK/head" "$WORK/body"
  curl -sS --max-time 20 -D "$WORK/head" -o "$WORK/body" -w '%{http_code}' "$@"
}
header() { tr -d '\r' <"$WORK/head" | grep -i "^$1:" | tail -n 1; }
log_lines() { wc -l <"$WORK/host.err"; }
tokens() { KRB5CCNAME=$1 "$TOKENS_BIN" "$2" "$OSTREL_SPN"; }

# --- a login as curl does it ---
code=$(KRB5CCNAME=$ALICE fetch --negotiate -u : -v "$URL" 2>"$WORK/curl.verbose")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL1" "$WORK/body" &&
   header WWW-Authenticate | grep -Eq '^WWW-Authenticate: Negotiate [A-Za-z0-9+/]+=*$'; then
  pass "curl --negotiate with alice's ticket: 200, named $PRINCIPAL1, with the reply token"
else
  fail "curl --negotiate with alice's ticket: $code, body '$(cat "$WORK/body")', $(header WWW-Authenticate)"
fi
curl_token=$(tr -d '\r' <"$WORK/curl.verbose" | sed -n 's/^> Authorization: Negotiate //p' | head -n 1)

code=$(KRB5CCNAME=$BOB fetch --negotiate -u : "$URL")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL2" "$WORK/body"; then
  pass "bob: 200, named $PRINCIPAL2"
else
  fail "bob: $code, body '$(cat "$WORK/body")'"
fi

# --anyauth asks first and sends the token after the 401, on the same connection.
code=$(KRB5CCNAME=$ALICE fetch --anyauth -u : -v "$URL" 2>"$WORK/curl.verbose")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL1" "$WORK/body" &&
   grep -q '^< HTTP/1.1 401' "$WORK/curl.verbose" &&
   grep -q 'Re-using existing connection' "$WORK/curl.verbose" &&
   [ "$(grep -c '^\* Connected to' "$WORK/curl.verbose")" = 1 ]; then
  pass "401 then the token on the same connection: 200"
else
  fail "401 then the token on the same connection: $code; curl said:"; cat "$WORK/curl.verbose"
fi

# --- refusals ---
code=$(fetch "$URL")
if [ "$code" = 401 ] && [ "$(header WWW-Authenticate)" = "WWW-Authenticate: Negotiate" ]; then
  pass "no Authorization: 401 with 'WWW-Authenticate: Negotiate'"
else
  fail "no Authorization: $code, '$(header WWW-Authenticate)'"
fi

code=$(KRB5CCNAME=FILE:$WORK/no-such.ccache fetch --negotiate -u : "$URL")
if [ "$code" = 401 ]; then pass "no ticket: 401"; else fail "no ticket: $code"; fi

before=$(log_lines)
code=$(fetch -H "Authorization: Negotiate AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA" "$URL")
if [ "$code" = 401 ] && tail -n +"$((before + 1))" "$WORK/host.err" |
     grep -q 'GET /: 401, SSOAcceptLogin -> 100 FAILURE; error 100, message [0-9]'; then
  pass "forged token: 401, status and error record logged"
else
  fail "forged token: $code; log: $(tail -n +"$((before + 1))" "$WORK/host.err")"
fi

# A real token with one byte changed inside the encrypted part.
tokens "$ALICE" spnego | base64 -d >"$WORK/tampered" || fail "negotiate_tokens spnego"
offset=$(( $(stat -c %s "$WORK/tampered") - 40 ))
byte=$(od -An -tu1 -j "$offset" -N1 "$WORK/tampered" | tr -d ' ')
printf "\\$(printf %o $(( byte ^ 0xff )))" | dd of="$WORK/tampered" bs=1 seek="$offset" conv=notrunc 2>/dev/null
code=$(fetch -H "Authorization: Negotiate $(base64 -w0 "$WORK/tampered")" "$URL")
if [ "$code" = 401 ]; then pass "tampered token: 401"; else fail "tampered token: $code"; fi

for bad in "Negotiate" "Negotiate !!!!" "Negotiate YIIC9" "Basic YWxpY2U6cHc="; do
  code=$(fetch -H "Authorization: $bad" "$URL")
  if [ "$code" = 401 ]; then pass "'Authorization: $bad': 401"; else fail "'Authorization: $bad': $code"; fi
done

# --- replays ---
if [ -n "$curl_token" ]; then
  before=$(log_lines)
  code=$(fetch -H "Authorization: Negotiate $curl_token" "$URL")
  if [ "$code" = 401 ] && tail -n +"$((before + 1))" "$WORK/host.err" | grep -q '401, SSOAcceptLogin -> 100 FAILURE'; then
    pass "curl's token replayed: 401"
  else
    fail "curl's token replayed: $code"
  fi
else
  fail "no token in curl's verbose output"
fi

token=$(tokens "$ALICE" spnego)
first=$(fetch -H "Authorization: Negotiate $token" "$URL")
second=$(fetch -H "Authorization: Negotiate $token" "$URL")
if [ "$first" = 200 ] && [ "$second" = 401 ]; then
  pass "the same header twice: 200, then 401"
else
  fail "the same header twice: $first, then $second"
fi

# --- the other shapes of a login ---
code=$(fetch -H "Authorization: Negotiate $(tokens "$ALICE" krb5)" "$URL")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL1" "$WORK/body" &&
   header WWW-Authenticate | grep -Eq '^WWW-Authenticate: Negotiate [A-Za-z0-9+/]{8,}=*$'; then
  pass "bare Kerberos token with mutual authentication: 200 with the reply"
else
  fail "bare Kerberos token with mutual authentication: $code, '$(header WWW-Authenticate)'"
fi

code=$(fetch -H "Authorization: Negotiate $(tokens "$ALICE" krb5-one-way)" "$URL")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL1" "$WORK/body" && [ -z "$(header WWW-Authenticate)" ]; then
  pass "bare Kerberos token without mutual authentication: 200, nothing to reply"
else
  fail "bare Kerberos token without mutual authentication: $code, '$(header WWW-Authenticate)'"
fi

# Two round trips: 401 with the host's request for a token, then 200, on one connection.
mapfile -t steps < <(tokens "$ALICE" two-step)
out=$(curl -sS --max-time 20 -i -w '\ncode=%{http_code} connects=%{num_connects}\n' \
        -H "Authorization: Negotiate ${steps[0]:-}" "$URL" \
        --next -sS --max-time 20 -i -w '\ncode=%{http_code} connects=%{num_connects}\n' \
        -H "Authorization: Negotiate ${steps[1]:-}" "$URL" | tr -d '\r')
if printf '%s\n' "$out" | grep -q '^code=401 connects=1$' &&
   printf '%s\n' "$out" | grep -Eq '^WWW-Authenticate: Negotiate [A-Za-z0-9+/]+=*$' &&
   printf '%s\n' "$out" | grep -q '^code=200 connects=0$' &&
   printf '%s\n' "$out" | grep -qx "Hello $PRINCIPAL1"; then
  pass "a login in two round trips on one connection: 401 with a token, then 200"
else
  fail "a login in two round trips on one connection:"; printf '%s\n' "$out"
fi

# The unfinished login belongs to its connection: while it waits there, its second token
# sent on another connection gets nowhere, and the waiting login still completes.
raw_request() {  # fd, token; sets raw_code and raw_body
  local fd=$1 line length=0
  raw_code= raw_body=
  printf 'GET / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Negotiate %s\r\n\r\n' "$2" >&"$fd" || return 1
  IFS=' ' read -r -t 10 -u "$fd" _ raw_code _ || return 1
  while IFS= read -r -t 10 -u "$fd" line; do
    line=${line%$'\r'}
    [ -n "$line" ] || break
    case ${line,,} in content-length:*) length=${line#*:}; length=${length// /} ;; esac
  done
  [ "$length" = 0 ] || read -r -t 10 -N "$length" -u "$fd" raw_body
}
mapfile -t steps < <(tokens "$ALICE" two-step)
exec 3<>"/dev/tcp/127.0.0.1/${URL//[^0-9]/}"
raw_request 3 "${steps[0]:-}"; held=$raw_code
other=$(fetch -H "Authorization: Negotiate ${steps[1]:-}" "$URL")
raw_request 3 "${steps[1]:-}"
exec 3<&-
if [ "$held" = 401 ] && [ "$other" = 401 ] && [ "$raw_code" = 200 ] && [ "$raw_body" = "Hello $PRINCIPAL1"$'\n' ]; then
  pass "an unfinished login is reached only from its own connection"
else
  fail "an unfinished login: held $held, other connection $other, then own connection $raw_code '$raw_body'"
fi

# --- several at once, then still healthy ---
pids=()
for i in 1 2 3 4 5 6 7 8; do
  if [ $((i % 2)) = 0 ]; then cc=$ALICE; want=$PRINCIPAL1; else cc=$BOB; want=$PRINCIPAL2; fi
  ( body=$(KRB5CCNAME=$cc curl -sS --max-time 20 --negotiate -u : "$URL") && [ "$body" = "Hello $want" ] ) &
  pids+=($!)
done
bad=0
for p in "${pids[@]}"; do wait "$p" || bad=$((bad + 1)); done
if [ "$bad" = 0 ]; then pass "8 logins at once, each named right"; else fail "8 logins at once: $bad wrong"; fi

code=$(KRB5CCNAME=$ALICE fetch --negotiate -u : "$URL")
if [ "$code" = 200 ] && grep -qx "Hello $PRINCIPAL1" "$WORK/body"; then
  pass "still healthy afterwards: 200"
else
  fail "still healthy afterwards: $code"
fi

# --- a clean stop; a sanitizer's leak report would make the exit status non-zero ---
# Left half-way: one login on a connection already closed, one on a connection still open.
mapfile -t steps < <(tokens "$ALICE" two-step)
code=$(fetch -H "Authorization: Negotiate ${steps[0]:-}" "$URL")
[ "$code" = 401 ] || fail "a login left half-way: $code"
mapfile -t steps < <(tokens "$ALICE" two-step)
exec 3<>"/dev/tcp/127.0.0.1/${URL//[^0-9]/}"
raw_request 3 "${steps[0]:-}"
[ "$raw_code" = 401 ] || fail "a login left half-way on an open connection: $raw_code"
kill -TERM "$HOST_PID"
status=timeout
for _ in $(seq 100); do
  if ! kill -0 "$HOST_PID" 2>/dev/null; then
    wait "$HOST_PID"; status=$?
    HOST_PID=
    break
  fi
  sleep 0.1
done
exec 3<&-
if [ "$status" = 0 ] && grep -q 'stopped; SSOTermPackage -> 0 OK' "$WORK/host.err"; then
  pass "SIGTERM with a connection open: stopped cleanly"
else
  fail "SIGTERM with a connection open: exit status $status"
fi
left=$(sed -n 's/.*Shutting down with \([0-9]*\) partially formed sessions.*/\1/p' "$WORK/trace.log")
if [ "$left" = 0 ]; then
  pass "logins left half-way were ended before SSOTermPackage"
else
  fail "logins left half-way: the plug-in still held '${left:-?}' at SSOTermPackage"
fi

if [ "$failures" != 0 ]; then
  echo "--- http_host's log ---"
  cat "$WORK/host.err"
  echo "$failures check(s) failed"
  exit 1
fi
echo "all checks passed"
