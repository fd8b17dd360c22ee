#!/usr/bin/env bash
# The Windows build and its tests. Cross-builds cpprestsdk for mingw-w64 (once: cached under
# build/mingw-deps) and the library as a DLL with the two test programs (build/mingw), then runs
# tests/windows/WineTest.cpp, a Linux test program that serves them from loopback with
# lxrepo-server and the recording server and runs them under Wine. scripts/test.sh runs this
# after the Linux suite; on its own it builds what it needs of the Linux side in build/normal.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

# ntlm_auth (winbind) is what Wine's NTLM package runs; without it SSPI has no NTLM at all.
packages=(g++-mingw-w64-x86-64-posix wine64 wine winbind dpkg-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
fi

jobs="$(nproc)"
deps="$root/build/mingw-deps"
"$root/scripts/windows-cpprestsdk.sh" "$deps"
# Boost.Asio, for the login's loopback listener, is header-only: the Linux package's headers
# serve any target, from a folder of their own so that no other Linux header is in reach.
mkdir -p "$deps/boost"
ln -sfn /usr/include/boost "$deps/boost/boost"

cmake -S "$root" -B "$root/build/mingw" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_PREFIX_PATH="$deps" \
  -DBoost_INCLUDE_DIR="$deps/boost" -DTRI_BUILD_SERVER=OFF -DTRI_BUILD_TOOLS=OFF >/dev/null
cmake --build "$root/build/mingw" -j"$jobs"
dll="$root/build/mingw/lib/libTableRepositoryImportLib.dll"
# Hosts look the factory up by its plain name.
x86_64-w64-mingw32-objdump -p "$dll" | grep -w new_TableRepositoryImport >/dev/null ||
  { echo "new_TableRepositoryImport is not among the DLL's exports"; exit 1; }

if [ ! -f "$root/build/normal/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$root/build/normal" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$root/build/normal" -j"$jobs" --target windows_test

export WINEPREFIX="$root/build/wineprefix" WINEDEBUG=-all WINEARCH=win64
# No Mono or Gecko: the programs need neither, and Wine would offer to download them.
export WINEDLLOVERRIDES="mscoree,mshtml="
runtime="$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")"
export WINEPATH="$(dirname "$dll");$deps/bin;$runtime;/usr/x86_64-w64-mingw32/lib"
wineserver=/usr/lib/wine/wineserver64
[ -x "$wineserver" ] || wineserver=/usr/lib/wine/wineserver
# The prefix's first start also tries to set up 32-bit Windows, which this 64-bit-only Wine lacks,
# and says so in its exit status; a prefix that does not serve fails the tests below instead.
/usr/lib/wine/wine64 wineboot --init || true
# One wine server for all the test's programs, ended with the script. The one wineboot left, or
# one an interrupted run left, is ended first: a second server of the same prefix would not start.
"$wineserver" -k 2>/dev/null || true
"$wineserver" -p
trap '"$wineserver" -k || true' EXIT
TRI_WINE=/usr/lib/wine/wine64 TRI_WINDOWS_BIN="$root/build/mingw/tests/windows" \
  "$root/build/normal/tests/windows/windows_test"
