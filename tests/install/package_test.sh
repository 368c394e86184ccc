#!/usr/bin/env bash
# The package CPack makes of a build, unpacked into a scratch root: what it declares,
# what it holds, and (Debian) a C11 host built and run against its header and library.
#   package_test.sh CPACK BUILD_DIR SOURCE_DIR WORK_DIR OBJDUMP
set -uo pipefail

CPACK=$1
BUILD=$2
SRC=$3
WORK=$4
OBJDUMP=$5
fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$WORK"
mkdir -p "$WORK/root"
"$CPACK" --config "$BUILD/CPackConfig.cmake" -B "$WORK" >"$WORK/cpack.log" 2>&1 || { cat "$WORK/cpack.log"; fail cpack; }

if compgen -G "$WORK/ostrel-*.zip" >/dev/null; then
  (cd "$WORK/root" && cmake -E tar xf "$WORK"/ostrel-*.zip) || fail "cannot unpack the zip"
  TOP=$(echo "$WORK"/root/ostrel-*)
  for f in bin/ostrel.dll bin/ostrel-scramble.exe include/ostrel/ostrel.h; do
    [ -f "$TOP/$f" ] || fail "the zip lacks $f"
  done
  "$OBJDUMP" -t "$TOP/bin/ostrel.dll" | grep -q 'no symbols' || fail "ostrel.dll is not stripped"
  echo "ok:   the zip holds the stripped DLL, the tool and the header"
  exit 0
fi

DEB=$(echo "$WORK"/ostrel_*.deb)
# The C and C++ runtime only: Kerberos is bound at run time, so it is only recommended.
depends=$(dpkg-deb -f "$DEB" Depends | sed -E 's/ \([^)]*\)//g')
[ "$depends" = "libc6, libgcc-s1, libstdc++6" ] || fail "Depends: $depends"
[ "$(dpkg-deb -f "$DEB" Recommends)" = libgssapi-krb5-2 ] || fail "Recommends: $(dpkg-deb -f "$DEB" Recommends)"
dpkg -x "$DEB" "$WORK/root" || fail "dpkg -x"
USR=$WORK/root/usr
for f in include/ostrel/ostrel.h lib/libostrel.so bin/ostrel-scramble share/doc/ostrel/hosting.md; do
  [ -f "$USR/$f" ] || fail "the package lacks /usr/$f"
done
echo "ok:   $(basename "$DEB"): depends on the runtime only, holds library, header, tool and guide"

cc -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$USR/include" "$SRC/examples/guide/minimal_host.c" \
  -L "$USR/lib" -lostrel -o "$WORK/host" || fail "the guide's host does not build against the package"
LD_LIBRARY_PATH=$USR/lib "$WORK/host" >"$WORK/host.out" 2>&1
grep -q "reverted: status 0" "$WORK/host.out" || fail "the host against the package: $(cat "$WORK/host.out")"
stored=$("$USR/bin/ostrel-scramble" 'a secret') && [ "$("$USR/bin/ostrel-scramble" -d "$stored")" = "a secret" ] ||
  fail "the packaged ostrel-scramble does not turn a secret around"
echo "ok:   a C11 host and the tool run from the package"
