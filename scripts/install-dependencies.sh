#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need on a fresh Debian 12 machine.
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi

packages=(
  g++ cmake make pkg-config git
  libcpprest-dev libboost-dev libboost-system-dev libssl-dev openssl ca-certificates
  libkrb5-dev gss-ntlmssp
  libgtest-dev libbenchmark-dev
  libsqlite3-dev sqlite3 nlohmann-json3-dev
  libcli11-dev libcsv-dev libabsl-dev libcurl4-openssl-dev
  clang libclang-rt-14-dev valgrind
)
# The OpenID provider the login tests run against is a Node program; TRI_SKIP_NODE=1 (the demo)
# leaves Node and the provider's packages out.
if [ "${TRI_SKIP_NODE:-}" != "1" ] && { ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; }; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ] || [ "${CI:-}" = "true" ]; then
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${packages[@]}" >/dev/null
fi

# The OpenID provider's own packages, pinned by the lock file.
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ "${TRI_SKIP_NODE:-}" != "1" ] && [ -f "$root/tests/oidc/package-lock.json" ]; then
  npm ci --prefix "$root/tests/oidc" --no-audit --no-fund --loglevel=error
fi
