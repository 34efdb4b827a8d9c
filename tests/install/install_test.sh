#!/usr/bin/env bash
# The installed tree as a host outside this one sees it:
#   install_test.sh BUILD_DIR SOURCE_DIR CMAKE CXX [SANITIZER]
# Installs the build into a fresh prefix and then moves the prefix, so nothing
# may name the place it was installed to. Checks the layout and that the
# program and the module take their libraries from the prefix; builds and
# runs a host with pkg-config's flags; runs the installed program until it
# listens; builds examples/embed with find_package(VxProxy), sends one request
# that a rule blocks through it and checks that the block was reported.
# Exits 77 (skipped) in a sanitizer build or when a tool is missing.
set -euo pipefail
build="$1" source="$2" cmake="$3" cxx="$4" sanitizer="${5:-}"

skip() { echo "install_test: skipped: $*"; exit 77; }
if [ -n "$sanitizer" ]; then
  skip "a sanitizer build (VX_SANITIZE=$sanitizer): every host of the installed libraries would need that sanitizer's runtime"
fi
for tool in "$cmake" ninja curl; do
  command -v "$tool" >/dev/null || skip "$tool is not installed"
done

work="$(mktemp -d)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "install_test: FAIL: $*"
  for out in "$work"/*.out; do [ -f "$out" ] && sed "s|^|  $(basename "$out"): |" "$out"; done
  exit 1
}
# wait_for FILE PATTERN: up to 10 s for a line of FILE matching PATTERN.
wait_for() {
  for _ in $(seq 100); do
    grep -q -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}
# A folder the proxy runs in: one rule, and a free port written back on start.
proxy_folder() {
  mkdir -p "$1"
  printf '/banner/\n' >"$1/filters.txt"
  printf '[Vexilo]\nPort=0\n' >"$1/vexilo.ini"
}
unset LD_LIBRARY_PATH

"$cmake" --install "$build" --prefix "$work/stage" >"$work/install.out" 2>&1 || fail "install"
rm "$work/install.out"
mv "$work/stage" "$work/prefix"
prefix="$work/prefix"

for file in bin/vxproxy lib/libvxproxy.so lib/libvxutils.so lib/libvxplatform.so \
    lib/pkgconfig/vxproxy.pc lib/cmake/VxProxy/VxProxyConfig.cmake \
    lib/cmake/VxProxy/VxProxyConfigVersion.cmake share/vxproxy/filters.txt; do
  [ -f "$prefix/$file" ] || fail "$file is not installed"
done
for template in proxy.pac.in vxproxy.service.in; do
  [ ! -f "$source/data/$template" ] || cmp -s "$source/data/$template" "$prefix/share/vxproxy/$template" ||
    fail "share/vxproxy/$template is not the template of data/"
done
[ "$(cd "$source/include/vxproxy" && ls)" = "$(cd "$prefix/include/vxproxy" && ls)" ] ||
  fail "include/vxproxy does not hold exactly the public headers"
for file in bin/vxproxy lib/libvxproxy.so; do
  for lib in libvxutils.so libvxplatform.so; do
    found="$(ldd "$prefix/$file" | awk -v lib="$lib" '$1 == lib { print ($3 == "not" ? "nowhere" : $3) }')"
    [ -n "$found" ] && [ "$(realpath "$found")" = "$(realpath "$prefix/lib/$lib")" ] ||
      fail "$file takes $lib from ${found:-nowhere}, not from the prefix"
  done
done

if command -v pkg-config >/dev/null; then
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  flags="$(pkg-config --cflags --libs vxproxy)" || fail "pkg-config does not know vxproxy"
  module="$(pkg-config --variable=module vxproxy)"
  cat >"$work/pc_host.cpp" <<'EOF'
#include <dlfcn.h>
#include "vxproxy/vxproxy.h"
int main(int, char** argv) {
  os::CreateThreadQueue();
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto getProxy = module ? reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy")) : nullptr;
  return getProxy != nullptr && getProxy()->GetFilteredRequests() == 0 ? 0 : 1;
}
EOF
  # shellcheck disable=SC2086  # the flags are words
  "$cxx" -std=c++20 -Wall -Wextra -Werror "$work/pc_host.cpp" -o "$work/pc_host" $flags \
    >"$work/pc_host.out" 2>&1 || fail "a host does not build with pkg-config's flags: $flags"
  LD_LIBRARY_PATH="$prefix/lib" "$work/pc_host" "$module" >>"$work/pc_host.out" 2>&1 ||
    fail "a host built with pkg-config's flags cannot load the module at '$module'"
  unset PKG_CONFIG_PATH
else
  echo "install_test: pkg-config is not installed; vxproxy.pc is left unchecked"
fi

# The installed program finds the module in ../lib.
proxy_folder "$work/host"
"$prefix/bin/vxproxy" run --data "$work/host" >"$work/program.out" 2>&1 &
program=$!
pids+=("$program")
wait_for "$work/program.out" "listening on 127.0.0.1:" || fail "the installed program did not start"
kill -TERM "$program" 2>/dev/null || true
wait "$program" || fail "the installed program exited with $?"
pids=()

"$cmake" -S "$source/examples/embed" -B "$work/embed" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  >"$work/embed-build.out" 2>&1 || fail "the example does not configure against the prefix"
"$cmake" --build "$work/embed" >>"$work/embed-build.out" 2>&1 || fail "the example does not build"
rm "$work/embed-build.out"

# The example takes the module's path from the package.
proxy_folder "$work/run"
"$work/embed/vxproxy_embed" --seconds 50 "$work/run" >"$work/embed.out" 2>&1 &
embed=$!
pids+=("$embed")
wait_for "$work/embed.out" "listening on 127.0.0.1:" || fail "the example did not start"
port="$(sed -n 's/^Port=\([0-9][0-9]*\).*/\1/p' "$work/run/vexilo.ini")"
[ -n "$port" ] && [ "$port" != 0 ] || fail "vexilo.ini names no port in use"
grep -q "listening on 127.0.0.1:$port\$" "$work/embed.out" || fail "the example names another port than $port"
# Blocked without a connection to the origin; the size probe that follows
# finds nothing listening on port 9 of this machine.
status="$(curl -s -o "$work/reply" -w '%{http_code}' --max-time 10 --noproxy '' \
  -x "http://127.0.0.1:$port" "http://localhost:9/banner/ad.gif")" || fail "curl through the proxy"
[ "$status" = 200 ] && [ "$(head -c 3 "$work/reply")" = GIF ] ||
  fail "the blocked request got status $status, not the replacement image"
wait_for "$work/embed.out" "^embed: blocked request 1\$" || fail "the example printed no block"
wait_for "$work/embed.out" "^embed: requests 1  blocked 1 " || fail "the counters do not show the block"
kill -TERM "$embed" 2>/dev/null || true
wait "$embed" || fail "the example exited with $?"
pids=()
grep -q "^embed: stopped after 1 blocked requests\$" "$work/embed.out" || fail "the example did not stop"
echo "install_test: installed, moved, built against and blocked a request through the example"
