#!/usr/bin/env bash
# One Kerberos login accepted by the plug-in, from a fresh Debian 12 machine:
# installs what is missing, builds the plug-in and the demo, starts a throwaway
# Kerberos realm on 127.0.0.1, runs the demo against it, and stops the realm.
#
#   bash scripts/demo.sh
#
# OSTREL_DEMO_BUILD_DIR=DIR uses an already configured build directory instead of
# the "default" preset.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"

step() { printf '== %s\n' "$*"; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/ostrel-demo.XXXXXX")
REALM=$WORK/realm
cleanup() {
  local status=$?
  trap - EXIT INT TERM
  if [ -f "$REALM/realm.state" ]; then
    tests/realm/realm.sh destroy "$REALM" >>"$WORK/realm.log" 2>&1 ||
      { echo "could not stop the demo realm; see $WORK/realm.log" >&2; exit 1; }
  fi
  rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Prints a command's log only when it fails: the demo's own output stays readable.
quietly() {
  local log=$1
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "failed: $*" >&2
    tail -n 40 "$log" >&2
    return 1
  fi
}

step "Checking the packages it needs (scripts/install-packages.sh)"
bash scripts/install-packages.sh

if [ -n "${OSTREL_DEMO_BUILD_DIR:-}" ]; then
  BUILD=$OSTREL_DEMO_BUILD_DIR
  step "Building the plug-in and the demo in $BUILD"
else
  BUILD=build/default
  step "Building the plug-in and the demo (cmake --preset default)"
  quietly "$WORK/configure.log" cmake --preset default
fi
quietly "$WORK/build.log" cmake --build "$BUILD" --parallel 2 --target demo_host demo_client ostrel

step "Starting a throwaway Kerberos realm on 127.0.0.1 (tests/realm/realm.sh)"
# --watch: should this script be killed outright, the realm's KDC goes with it.
quietly "$WORK/realm.log" tests/realm/realm.sh start "$REALM" --watch $$
# shellcheck disable=SC1091
. "$REALM/env.sh"
# The "SSPI" round logs in a principal named after a local account, which gives it SIDs.
LOCAL_USER=nobody
quietly "$WORK/principal.log" tests/realm/realm.sh exec "$REALM" kadmin.local -q "addprinc -pw Ostrel-demo-pw $LOCAL_USER"
printf '%s Ostrel-demo-pw\n' "$LOCAL_USER" >>"$REALM/passwords"
echo "   realm $OSTREL_REALM, KDC on 127.0.0.1:$OSTREL_KDC_PORT, users $OSTREL_USER1, $OSTREL_USER2 and $LOCAL_USER"
echo

"$BUILD/demo_host" --plugin "$BUILD/libostrel.so" --service "$OSTREL_SPN" --sspi-user "$LOCAL_USER@$OSTREL_REALM" \
  "$OSTREL_USER1" "$REALM/passwords"
