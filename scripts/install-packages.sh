#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build, test and demo ostrel.
# Non-interactive; does nothing when everything is already there.
set -euo pipefail

packages=(
  cmake make g++ clang libclang-rt-dev ccache binutils curl dpkg-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  krb5-kdc krb5-admin-server krb5-user libkrb5-dev libgssapi-krb5-2
  g++-mingw-w64-x86-64-posix
)
# Wine and Chromium without their recommends: no desktop pieces are needed to run tests
# (Chromium runs headless, as the browser that logs into the example HTTP host).
wine_packages=(wine64 wine chromium)

missing=()
for p in "${packages[@]}" "${wine_packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq "${packages[@]}"
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${wine_packages[@]}"
