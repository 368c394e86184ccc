#!/bin/sh
# Runs a Windows program under Wine in a private prefix, which it creates on
# first use. Usage: wine-run.sh PREFIX PROGRAM [ARGS...]
set -e
if [ $# -lt 2 ]; then
    echo "usage: $0 PREFIX PROGRAM [ARGS...]" >&2
    exit 2
fi
WINEPREFIX=$1
shift
export WINEPREFIX
export WINEDEBUG=-all
# No Mono or Gecko installers when the prefix is created.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

mkdir -p "$WINEPREFIX"
# Wine's background processes must not inherit our output pipes (a caller
# reading them, ctest or execute_process, would wait for those processes to
# end), nor the lock (the next run would wait for the server to exit).
(
    flock 9
    # Fails when a server already runs: then whoever started it set it up.
    # Stays up a while after its last client, so back-to-back runs are warm.
    if wineserver -p30 </dev/null >/dev/null 2>&1 9>&-; then
        started=1
    else
        started=0
    fi
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        wineboot -i </dev/null >/dev/null 2>&1 9>&- || true
    elif [ $started = 1 ]; then
        wineboot </dev/null >/dev/null 2>&1 9>&- || true
    fi
) 9>"$WINEPREFIX.lock"

exec wine "$@"
