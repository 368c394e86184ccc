#!/usr/bin/env bash
# Builds the Windows x64 library and its tests with mingw-w64 and runs the
# tests under Wine. Extra arguments go to ctest (e.g. -L unit, -R Lifecycle).
# Exits with ctest's status.
set -euo pipefail

cd "$(dirname "$0")/.."
build=build/windows
# Where the toolchain file puts the prefix: <binary dir>/wineprefix.
export WINEPREFIX=$PWD/$build/wineprefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

# shellcheck disable=SC2317  # called through the trap
stop_wine() {
    wineserver -k </dev/null >/dev/null 2>&1 || true
}
trap stop_wine EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start=$SECONDS
cmake --preset windows
configured=$SECONDS

# One server for the whole run, started detached from our pipes; any other
# server of this prefix (left by an earlier build) is replaced, since it may
# exit between tests.
mkdir -p "$WINEPREFIX"
(
    flock 9
    wineserver -k </dev/null >/dev/null 2>&1 9>&- || true
    wineserver -p </dev/null >/dev/null 2>&1 9>&-
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        echo "Creating the Wine prefix $WINEPREFIX"
        wineboot -i </dev/null >/dev/null 2>&1 9>&-
    else
        wineboot </dev/null >/dev/null 2>&1 9>&-
    fi
) 9>"$WINEPREFIX.lock"
wine_ready=$SECONDS

cmake --build --preset windows -j 2
built=$SECONDS

status=0
ctest --preset windows "$@" || status=$?
tested=$SECONDS

echo "windows-tests: configure $((configured - start)) s, wine $((wine_ready - configured)) s," \
     "build $((built - wine_ready)) s, tests $((tested - built)) s, ctest status $status"
exit $status
