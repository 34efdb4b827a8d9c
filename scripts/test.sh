#!/usr/bin/env bash
# Builds everything and runs the whole suite twice (a normal build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build), then the threaded
# suites under ThreadSanitizer. Installs missing packages first. Before the
# suites, every public header must compile on its own here and for Windows, the
# layers of src/ must include each other without a cycle, and each fuzz target
# must run its short round without a finding.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh" chromium g++-mingw-w64-x86-64-posix
jobs="$(nproc)"

echo "== public headers"
"$root/scripts/headers.sh"
echo "== layers"
"$root/scripts/layers.sh" --check
echo "== fuzz"
"$root/scripts/fuzz.sh"

# run_suite FLAVOUR [BUILD TARGETS...] [-- CTEST ARGS...]
run_suite() {
  local flavour="$1"; shift
  local targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do targets+=(--target "$1"); shift; done
  [ $# -gt 0 ] && shift
  echo "== $flavour: build"
  "$root/scripts/build.sh" "$flavour" "${targets[@]}"
  echo "== $flavour: test"
  (cd "$root/build/$flavour" && ctest --output-on-failure -j "$jobs" --timeout 300 "$@")
}


export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
run_suite release
run_suite asan
# The ThreadSanitizer run builds only what its threaded suites start.
run_suite tsan threaded_tests -- -L threaded
echo "== all suites passed"
