#!/usr/bin/env bash
# Cross-builds cpprestsdk for 64-bit Windows with mingw-w64 from Debian's own source package, plus
# patches/cpprestsdk-mingw.patch, and installs it into PREFIX (for example build/mingw-deps), where
# a consumer finds it with -DCMAKE_PREFIX_PATH=PREFIX and cmake/mingw-w64-x86_64.cmake. Builds once:
# a stamp naming the version and a hash of the patch and of this script keeps later runs instant.
#
# Usage: scripts/windows-cpprestsdk.sh PREFIX
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
[ $# -eq 1 ] || { echo "usage: $0 PREFIX" >&2; exit 2; }
mkdir -p "$1"
prefix="$(cd "$1" && pwd)"

version=2.10.18
patch_file="$root/patches/cpprestsdk-mingw.patch"
hash="$(cat "$patch_file" "${BASH_SOURCE[0]}" | sha256sum | cut -c1-12)"
stamp="$prefix/.done-cpprestsdk-$version-$hash"
[ -e "$stamp" ] && exit 0

# Two scripts asking for the same prefix at once build it once.
exec 9>"$prefix/.lock"
flock 9
[ -e "$stamp" ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
packages=(g++-mingw-w64-x86-64-posix dpkg-dev cmake make)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# apt-get source needs a deb-src entry. One is derived from the machine's own Debian entry, so the
# sources stay the mirror (or snapshot) the machine already uses.
if ! grep -Eqs '^[[:space:]]*(deb-src[[:space:]]|Types:.*deb-src)' /etc/apt/sources.list \
     /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; then
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    sed -e '/^#/d' -e 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
      $SUDO tee /etc/apt/sources.list.d/tri-deb-src.sources >/dev/null
  else
    sed -n 's/^deb /deb-src /p' /etc/apt/sources.list | $SUDO tee /etc/apt/sources.list.d/tri-deb-src.list >/dev/null
  fi
  $SUDO apt-get update -q
elif ! apt-cache showsrc cpprest 2>/dev/null | grep -q "^Version: $version-"; then
  $SUDO apt-get update -q
fi

echo "Cross-building cpprestsdk $version for mingw into $prefix (once; a few minutes)"
work="$prefix/src"
log="$prefix/cpprestsdk-build.log"
logged() {
  "$@" >>"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    echo "cpprestsdk did not build for mingw; the whole log is $log" >&2
    exit 1
  }
}
rm -rf "$work" "$log" "$prefix/include/cpprest" "$prefix/include/pplx" "$prefix/lib/cmake/cpprestsdk" \
  "$prefix"/lib/libcpprest* "$prefix"/bin/libcpprest* "$prefix/case" "$prefix"/.done-cpprestsdk-*
mkdir -p "$work"
(cd "$work" && logged apt-get source cpprest)
source_dir="$work/cpprest-$version"
[ -d "$source_dir" ] || { echo "apt-get source did not give cpprest $version" >&2; exit 1; }
logged patch -p1 -d "$source_dir" -i "$patch_file"

# The sources name some Windows headers and a library in mixed case, which mingw ships in lower
# case; on a case-sensitive file system these forwarders make both spellings work. -idirafter
# consults them only when no real header of that name exists.
case_dir="$prefix/case"
mkdir -p "$case_dir"
for header in Wincrypt Strsafe SDKDDKVer VersionHelpers; do
  echo "#include <${header,,}.h>" >"$case_dir/$header.h"
done
ln -s "$(readlink -f "$(x86_64-w64-mingw32-gcc-posix -print-file-name=libwinhttp.a)")" "$case_dir/libWinhttp.a"

# The WinHTTP client on cpprestsdk's own task library (mingw has no Concurrency Runtime); no
# WebSockets, compression or listener, so no Boost, OpenSSL or zlib. -Wno-narrowing: the Windows
# file streams switch on a size_t with `case -1`. --export-all-symbols: g++ consumers link to the
# DLL's vtables (http_msg_base's among them), which cpprestsdk never exports, since MSVC consumers
# emit their own.
jobs="$(nproc)"
[ "$jobs" -le 2 ] || jobs=2
logged cmake -S "$source_dir" -B "$work/build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DCPPREST_EXCLUDE_WEBSOCKETS=ON -DCPPREST_EXCLUDE_COMPRESSION=ON -DBUILD_TESTS=OFF \
  -DBUILD_SAMPLES=OFF -DWERROR=OFF -DCMAKE_CXX_STANDARD=17 -DCPPREST_PPLX_IMPL=winpplx \
  -DCPPREST_HTTP_LISTENER_IMPL=none \
  -DCMAKE_CXX_FLAGS="-Wno-narrowing -idirafter $case_dir" \
  -DCMAKE_SHARED_LINKER_FLAGS="-Wl,--export-all-symbols -L$case_dir"
logged cmake --build "$work/build" -j"$jobs"
logged cmake --install "$work/build" --strip
rm -rf "$work"
touch "$stamp"
