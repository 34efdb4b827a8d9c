#!/usr/bin/env bash
# Configures and builds one flavour into build/<flavour>:
#   release | debug | asan (AddressSanitizer + UBSan) | tsan (ThreadSanitizer)
set -euo pipefail
flavour="${1:-release}"
shift || true
root="$(cd "$(dirname "$0")/.." && pwd)"
case "$flavour" in
  release) args=(-DCMAKE_BUILD_TYPE=Release) ;;
  debug) args=(-DCMAKE_BUILD_TYPE=Debug) ;;
  asan) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVX_SANITIZE=address -DVX_BUILD_BENCH=OFF) ;;
  tsan) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVX_SANITIZE=thread -DVX_BUILD_BENCH=OFF) ;;
  *) echo "unknown flavour $flavour" >&2; exit 2 ;;
esac
cmake -S "$root" -B "$root/build/$flavour" -G Ninja "${args[@]}" >/dev/null
cmake --build "$root/build/$flavour" -j "$(nproc)" "$@"
