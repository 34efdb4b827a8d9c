#!/usr/bin/env bash
# Installs the build and test dependencies with apt-get when any is missing.
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for pkg in cmake g++ ninja-build libgtest-dev libgmock-dev libbenchmark-dev libpugixml-dev libcurl4-openssl-dev curl pkgconf "$@"; do
  have_pkg "$pkg" || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "deps: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi
