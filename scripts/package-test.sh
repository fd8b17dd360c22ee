#!/usr/bin/env bash
# Builds the Debian packages (Release, in build/package), installs them on this machine with
# dpkg, and checks them as a user would meet them: a host project built against /usr once with
# pkg-config alone and once with find_package creates the client; lxrepo and lxrepo-server from
# /usr/bin print the project's version; systemd accepts the service's unit; lintian finds no
# error. The packages are purged afterwards, also when a check fails. Runs as root, or with sudo.
#
# Lintian warnings left, on purpose:
#   maintscript-calls-ldconfig (the library): CPack writes the postinst and postrm that call
#     ldconfig; the package also activates the ldconfig trigger, which is what Debian asks.
#   no-manual-page (lxrepo, lxrepo-server): both programs document themselves with --help.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/package"
work="$(mktemp -d)"
packages=(lxrepo-server lxrepo libtablerepositoryimportlib-dev)
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  sudo=(sudo)
fi

missing=()
command -v systemd-analyze >/dev/null || missing+=(systemd)
command -v lintian >/dev/null || missing+=(lintian)
# CPack reads the binaries' dependencies with file and dpkg-shlibdeps.
command -v file >/dev/null || missing+=(file)
command -v dpkg-shlibdeps >/dev/null || missing+=(dpkg-dev)
if [ "${#missing[@]}" -gt 0 ]; then
  "${sudo[@]}" apt-get update
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y "${missing[@]}"
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DTRI_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB)
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
library="$(cd "$build" && ls libtablerepositoryimportlib[0-9]*_"$version"_*.deb)"
packages+=("${library%%_*}")

echo "-- lintian"
lintian --fail-on error "$build"/*.deb

had_user=0
getent passwd lxrepo >/dev/null && had_user=1
cleanup() {
  "${sudo[@]}" dpkg --purge "${packages[@]}" >/dev/null || true
  if [ "$had_user" = 0 ] && getent passwd lxrepo >/dev/null; then
    "${sudo[@]}" deluser --system lxrepo >/dev/null 2>&1 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "-- dpkg -i"
if ! "${sudo[@]}" dpkg -i "$build"/*.deb; then
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -f -y
fi
test "$(dpkg -s "${packages[@]}" | grep -c '^Status: install ok installed')" = "${#packages[@]}"

echo "-- the programs' versions"
test "$(/usr/bin/lxrepo --version)" = "lxrepo $version"
test "$(/usr/bin/lxrepo-server --version)" = "lxrepo-server $version"
test "$(pkg-config --modversion TableRepositoryImportLib)" = "$version"

echo "-- a host built with pkg-config only"
# shellcheck disable=SC2046 # the flags are words
g++ -std=c++17 -Wall -Wextra -Werror "$root/tests/consumer/main.cpp" -o "$work/consumer-pc" \
  $(env -u PKG_CONFIG_PATH pkg-config --cflags --libs TableRepositoryImportLib)
"$work/consumer-pc"

echo "-- a host built with find_package"
cmake -S "$root/tests/consumer" -B "$work/consumer-cmake" >/dev/null
grep -q '^TableRepositoryImportLib_DIR:PATH=/usr/lib/' "$work/consumer-cmake/CMakeCache.txt"
cmake --build "$work/consumer-cmake" >/dev/null
"$work/consumer-cmake/consumer"

echo "-- the service: its user, its options, its unit"
getent passwd lxrepo | grep -q ':/var/lib/lxrepo:'
grep -q -- '--address 127.0.0.1 .*--database /var/lib/lxrepo/' /etc/default/lxrepo-server
systemd-analyze verify /lib/systemd/system/lxrepo-server.service
echo "package test passed"
