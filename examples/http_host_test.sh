#!/usr/bin/env bash
# http_host against the test realm, with curl as the browser.
#   http_host_test.sh HTTP_HOST NEGOTIATE_TOKENS PLUGIN WORK_DIR   (needs the realm's environment: ctest gives it)
set -uo pipefail
HOST_BIN=$1 TOKENS_BIN=$2 PLUGIN=$3 WORK=$4
: "${OSTREL_REALM_DIR:?needs the test realm (run through ctest)}"
REALM_SH=$(dirname "${BASH_SOURCE[0]}")/../tests/realm/realm.sh
ALICE=FILE:$WORK/alice.ccache HOST_PID=
rm -rf "$WORK" && mkdir -p "$WORK"
stop_host() {  # TERM, KILL after 10 s; the host's exit status in status
  [ -n "$HOST_PID" ] || return 0
  kill -TERM "$HOST_PID"
  for _ in $(seq 100); do kill -0 "$HOST_PID" 2>/dev/null && sleep 0.1; done
  kill -KILL "$HOST_PID" 2>/dev/null
  wait "$HOST_PID"
  status=$? HOST_PID=
}
trap stop_host EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
failures=0
check() {  # WHAT CONDITION...
  local what=$1
  shift
  if eval "$@"; then echo "ok:   $what"; else echo "FAIL: $what: $*"; failures=$((failures + 1)); fi
}
# An own credential cache: the realm's default one is shared with other tests.
bash "$REALM_SH" kinit "$OSTREL_REALM_DIR" "$OSTREL_USER1" --ccache "$ALICE" || exit 1
# The plug-in's trace tells at the end how many half-done logins were left over.
OSTREL_TRACE=$WORK/trace.log "$HOST_BIN" --port 0 --port-file "$WORK/port" --plugin "$PLUGIN" --threads 4 >"$WORK/host.out" 2>"$WORK/host.err" &
HOST_PID=$!
for _ in $(seq 100); do [ -s "$WORK/port" ] || ! kill -0 $HOST_PID 2>/dev/null || sleep 0.1; done
[ -s "$WORK/port" ] || { echo "http_host did not start:"; cat "$WORK/host.out" "$WORK/host.err"; exit 1; }
PORT=$(cat "$WORK/port")
URL=http://localhost:$PORT/  # localhost, not 127.0.0.1: curl names the service after the host it was given
NL=$'\n' HELLO1="Hello $OSTREL_USER1@$OSTREL_REALM" REPLY='^WWW-Authenticate: Negotiate [A-Za-z0-9+/]{8,}=*$'
# CCACHE CURL-ARGS...: sets code, body and head (with the log lines it caused in log).
fetch() {
  local before
  before=$(wc -l <"$WORK/host.err")
  code=$(KRB5CCNAME=$1 curl -sS --max-time 20 -D "$WORK/head" -o "$WORK/body" -w '%{http_code}' "${@:2}" "$URL" 2>"$WORK/curl.err")
  body=$(cat "$WORK/body") head=$(tr -d '\r' <"$WORK/head" | grep -i '^WWW-Authenticate' | tail -n 1) log=$(tail -n +"$((before + 1))" "$WORK/host.err")
}
tokens() { KRB5CCNAME=$ALICE "$TOKENS_BIN" "$1" "$OSTREL_SPN"; }
negotiate() { fetch "$ALICE" -H "Authorization: Negotiate $1"; }

fetch "$ALICE" --negotiate -u :
check "curl --negotiate: 200, the user named, with the reply token" '[ "$code" = 200 ] && [ "$body" = "$HELLO1" ] && [[ $head =~ $REPLY ]]'
fetch "$ALICE"
check "no Authorization: 401 asking for Negotiate" '[ "$code" = 401 ] && [ "$head" = "WWW-Authenticate: Negotiate" ]'
negotiate AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA
check "a forged token: 401, status and error record logged" '[ "$code" = 401 ] && grep -q "GET /: 401, SSOAcceptLogin -> 100 FAILURE; error 100, message [0-9]" <<<"$log"'
for bad in "Negotiate" "Negotiate !!!!" "Negotiate YIIC9" "Basic YWxpY2U6cHc="; do
  fetch "$ALICE" -H "Authorization: $bad"
  check "'Authorization: $bad': 401" '[ "$code" = 401 ]'
done
negotiate "$(tokens krb5-one-way)"
check "a bare Kerberos token without mutual authentication: 200, nothing to reply" '[ "$code" = 200 ] && [ "$body" = "$HELLO1" ] && [ -z "$head" ]'

raw() {  # FD TOKEN: one request on an open connection; sets raw_code and raw_body
  local line length=0
  raw_code= raw_body=
  printf 'GET / HTTP/1.1\r\nHost: localhost\r\nAuthorization: Negotiate %s\r\n\r\n' "$2" >&"$1" && IFS=' ' read -r -t 10 -u "$1" _ raw_code _ || return
  while IFS= read -r -t 10 -u "$1" line && line=${line%$'\r'} && [ -n "$line" ]; do
    [[ ${line,,} != content-length:* ]] || length=${line//[^0-9]/}
  done
  [ "$length" = 0 ] || read -r -t 10 -N "$length" -u "$1" raw_body
}
# An unfinished login belongs to its connection: its second token sent on another one gets nowhere.
mapfile -t steps < <(tokens two-step)
exec 3<>"/dev/tcp/127.0.0.1/$PORT"
raw 3 "${steps[0]:-}" && held=$raw_code
negotiate "${steps[1]:-}"
raw 3 "${steps[1]:-}"
exec 3<&-
check "an unfinished login is reached only from its own connection" '[ "$held" = 401 ] && [ "$code" = 401 ] && [ "$raw_code" = 200 ] && [ "$raw_body" = "$HELLO1$NL" ]'

# A clean stop with logins left half-way, on a closed connection and on one still open; a sanitizer's leak
# report would make the exit status non-zero.
mapfile -t steps < <(tokens two-step)
negotiate "${steps[0]:-}"
mapfile -t steps < <(tokens two-step)
exec 3<>"/dev/tcp/127.0.0.1/$PORT"
raw 3 "${steps[0]:-}"
stop_host
exec 3<&-
check "SIGTERM with a connection open: stopped cleanly" '[ "$code$raw_code" = 401401 ] && [ "$status" = 0 ] && grep -q "stopped; SSOTermPackage -> 0 OK" "$WORK/host.err"'
check "logins left half-way were ended before SSOTermPackage" 'grep -q "Shutting down with 0 partially formed sessions" "$WORK/trace.log"'
[ "$failures" = 0 ] || { echo "--- http_host's log ---"; cat "$WORK/host.err"; echo "$failures check(s) failed"; exit 1; }
echo "all checks passed"
