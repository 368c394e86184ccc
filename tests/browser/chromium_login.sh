#!/usr/bin/env bash
# Headless Chromium logs into the example HTTP host with a ticket of the test realm
# (fixture kerberos_realm); the page's DOM and a screenshot stay in WORK_DIR.
#   chromium_login.sh HTTP_HOST PLUGIN WORK_DIR     exits 77 (skipped) without Chromium
set -uo pipefail

HOST_BIN=$1
PLUGIN=$2
WORK=$3
: "${OSTREL_REALM_DIR:?needs the test realm (run through ctest)}"
BROWSER=${OSTREL_CHROMIUM:-$(command -v chromium || command -v chromium-browser)}
if [ -z "$BROWSER" ]; then
  echo "skipped: no Chromium on PATH (Debian's package chromium; scripts/install-packages.sh installs it)"
  exit 77
fi
REALM_SH=$(cd "$(dirname "${BASH_SOURCE[0]}")/../realm" && pwd)/realm.sh
USER_NAME=$OSTREL_USER1@$OSTREL_REALM

rm -rf "$WORK"
mkdir -p "$WORK/profile"
HOST_PID=
trap '[ -z "$HOST_PID" ] || { kill -TERM "$HOST_PID"; wait "$HOST_PID"; } 2>/dev/null' EXIT
trap 'exit 1' INT TERM
fail() { echo "FAIL: $*"; echo "--- http_host's log ---"; cat "$WORK/host.err"; exit 1; }

"$REALM_SH" kinit "$OSTREL_REALM_DIR" "$OSTREL_USER1" --ccache "$WORK/user.ccache" >/dev/null ||
  fail "kinit $OSTREL_USER1"
"$HOST_BIN" --port 0 --port-file "$WORK/port" --plugin "$PLUGIN" >"$WORK/host.out" 2>"$WORK/host.err" &
HOST_PID=$!
for _ in $(seq 100); do
  [ -s "$WORK/port" ] && break
  kill -0 "$HOST_PID" 2>/dev/null || break
  sleep 0.1
done
[ -s "$WORK/port" ] || fail "http_host did not start"
# localhost: the name on the allow-list, and the one the service's principal carries.
URL=http://localhost:$(cat "$WORK/port")/

# Logins the host finished for the user on the page itself: the favicon's request comes
# later and may log in where the page's did not.
logins() { grep -c " GET /: 200, $USER_NAME\$" "$WORK/host.err"; }

# One page load in the test's own profile: NAME, then Chromium's extra arguments.
browse() {
  local name=$1
  shift
  KRB5CCNAME=FILE:$WORK/user.ccache timeout 60 "$BROWSER" --headless --no-sandbox --disable-gpu \
    --disable-quic --no-first-run --disable-background-networking --disable-component-update \
    --disable-sync --user-data-dir="$WORK/profile" --auth-server-allowlist=localhost \
    "$@" "$URL" >"$WORK/$name.out" 2>"$WORK/$name.err"
}

# A fresh profile's first request may leave before the Negotiate settings apply and then
# meets the 401 page: a load counts only when the host logged a finished login for it.
load() {
  local before
  for try in 1 2 3; do
    before=$(logins)
    if browse "$@" && [ "$(logins)" -gt "$before" ]; then
      return 0
    fi
    echo "try $try ($1): no login reached the host"
  done
  return 1
}

load dom --dump-dom || fail "Chromium never logged in; its last words: $(tail -n 5 "$WORK/dom.err")"
grep -q "Hello $USER_NAME" "$WORK/dom.out" || fail "the page does not name $USER_NAME: $(cat "$WORK/dom.out")"
echo "ok:   Chromium's page says 'Hello $USER_NAME'"

load shot --window-size=420,60 --force-device-scale-factor=2 --hide-scrollbars \
  --screenshot="$WORK/screenshot.png" || fail "no login for the screenshot"
[ "$(od -An -tx1 -N8 "$WORK/screenshot.png" | tr -d ' \n')" = 89504e470d0a1a0a ] || fail "no PNG screenshot"
echo "ok:   screenshot of the logged-in page: $WORK/screenshot.png"
