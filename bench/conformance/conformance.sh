#!/usr/bin/env bash
# conformance.sh - the request-smuggling and HTTP/1.1 conformance cases of
# cases.txt (taken from RFC 9112 and RFC 9110) through `vxproxy run`, with
# every extension on (default) and with none (--strict), side by side.
#
# Usage: bench/conformance/conformance.sh [options]
#   --binary PATH     the vxproxy host program (libvxproxy.so beside it);
#                     default build/release/vxproxy, built (with the driver)
#                     by scripts/build.sh release
#   --only CASE       run one case
#   --verbose         show what the client and the origin got in every case
#   --proxy NAME=PORT also run the cases through a proxy you started yourself
#                     on 127.0.0.1:PORT (repeatable), e.g. another proxy to
#                     compare with
#   --keep            keep the work folder (the proxies' logs)
#   -h, --help        this text
#
# What it does:
#   1. installs the build dependencies when missing (scripts/deps.sh) and
#      builds build/release: vxproxy, the module and bench/conformance's
#      conformance_driver;
#   2. starts two proxies in a temporary folder, each with data and log
#      folders of its own, on ports the system picks, filtering off (the cases
#      are about HTTP, not about blocking): `vxproxy run --no-filter` and
#      `vxproxy run --no-filter --strict`;
#   3. runs conformance_driver: for each case and proxy, a fresh origin of the
#      driver's own on a loopback port (a strict HTTP/1.1 reader that records
#      every byte and answers as the case says), one client connection with
#      the case's bytes, then the case's checks on what the client got and
#      what reached the origin;
#   4. prints one line per case (pass or FAIL per proxy, the requirement's
#      level and the RFC sections), the passes per level, and for each case
#      that did not pass what the client and the origin saw.
# A run takes about a minute and a half. It is a report, not a gate: the exit
# status is 0 whatever the cases found; 1 when something could not be built
# or started; 2 for bad arguments.
set -Eeuo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

BIN=""
KEEP=0
DRIVER_ARGS=()

note() { printf 'conformance: %s\n' "$*" >&2; }
die() { note "error: $*"; exit 1; }
usage_error() { note "$*"; note "see --help"; exit 2; }
usage() { sed -n '2,/^set -Eeuo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; }

while [ $# -gt 0 ]; do
  case $1 in
    --binary) [ $# -ge 2 ] || usage_error "--binary needs a path"; BIN=$2; shift ;;
    --only) [ $# -ge 2 ] || usage_error "--only needs a case name"
            DRIVER_ARGS+=(--only "$2"); shift ;;
    --verbose) DRIVER_ARGS+=(--verbose) ;;
    --proxy) { [ $# -ge 2 ] && [[ $2 =~ ^[A-Za-z0-9_-]+=[0-9]+$ ]]; } ||
               usage_error "--proxy needs NAME=PORT"
             DRIVER_ARGS+=(--proxy "$2"); shift ;;
    --keep) KEEP=1 ;;
    -h|--help) usage; exit 0 ;;
    *) usage_error "unknown argument '$1'" ;;
  esac
  shift
done

TMP=""
PIDS=()
# shellcheck disable=SC2317  # reached through the trap
cleanup() {
  local rc=$? pid
  trap - EXIT INT TERM HUP
  for pid in "${PIDS[@]}"; do kill -TERM "$pid" 2> /dev/null || true; done
  for pid in "${PIDS[@]}"; do wait "$pid" 2> /dev/null || true; done
  if [ -n "$TMP" ] && [ -d "$TMP" ]; then
    if [ "$KEEP" = 1 ]; then note "kept $TMP"; else rm -rf "$TMP"; fi
  fi
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

DRIVER="$REPO/build/release/bench/conformance/conformance_driver"
"$REPO/scripts/deps.sh"
if [ -z "$BIN" ]; then
  note "building the release flavour (scripts/build.sh release)"
  "$REPO/scripts/build.sh" release --target vxproxy vxproxy_module conformance_driver > /dev/null
  BIN="$REPO/build/release/vxproxy"
else
  "$REPO/scripts/build.sh" release --target conformance_driver > /dev/null
fi
[ -x "$BIN" ] || die "no vxproxy at $BIN"
[ -x "$DRIVER" ] || die "no conformance_driver at $DRIVER"

TMP=$(mktemp -d /tmp/vx-conformance.XXXXXX)

start_proxy() { # start_proxy NAME OPTION...: vxproxy run in $TMP/NAME -> its port in $PORT
  local name=$1 line=""
  shift
  mkdir -p "$TMP/$name"
  "$BIN" run --data "$TMP/$name" --port 0 --no-filter "$@" \
    > "$TMP/$name/out" 2> "$TMP/$name/err" < /dev/null &
  PIDS+=($!)
  for _ in $(seq 1 100); do
    line=$(grep -m1 'listening on' "$TMP/$name/out" 2> /dev/null || true)
    [ -n "$line" ] && break
    kill -0 "${PIDS[-1]}" 2> /dev/null || break
    sleep 0.1
  done
  [ -n "$line" ] || { cat "$TMP/$name/err" >&2; die "vxproxy run $* did not start"; }
  PORT=${line##*:}
}

start_proxy default
DEFAULT_PORT=$PORT
start_proxy strict --strict
STRICT_PORT=$PORT
note "vxproxy run on $DEFAULT_PORT, vxproxy run --strict on $STRICT_PORT" \
  "($(git -C "$REPO" log -1 --format='%h %s' 2> /dev/null | cut -c1-60))"
"$DRIVER" --cases "$HERE/cases.txt" --proxy "default=$DEFAULT_PORT" --proxy "strict=$STRICT_PORT" \
  "${DRIVER_ARGS[@]}" || die "the driver stopped"
