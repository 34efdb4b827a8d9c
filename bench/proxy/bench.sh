#!/usr/bin/env bash
# bench.sh - our proxy beside tinyproxy, privoxy and squid, all on loopback,
# in one command.
#
# Usage: bench/proxy/bench.sh [options]
#   --quick          short look: 3 s runs, c=16 only, 10 curl samples, 10 s burst
#   --binary PATH    the vxproxy host program to run (libvxproxy.so beside it);
#                    default build/release/vxproxy, built with
#                    scripts/build.sh release when missing
#   --list FILE      filter list for ours (default ../shared/data/easylist-joined.txt
#                    beside the repository when it exists, else data/default/filters.txt)
#   -R FILE          also write every measurement to FILE as TSV
#   -d SECS          length of each wrk run (default 10; quick 3)
#   -w SECS          warm-up wrk run before each measured one (default 1; 0 = none)
#   -c "LIST"        wrk connection counts (default "1 16 64"; quick "16")
#   -n N             curl samples per target (default 50; quick 10)
#   -b SECS          length of the new-connection burst for the memory figures
#                    (default 30; quick 10)
#   -t N             wrk threads (default 1)
#   --no-install     never call apt-get; fail when a tool is missing
#   --keep           keep the temporary folder (configs, logs) and print its path
#   -h, --help       this text
#
# What it does:
#   1. installs what is missing with apt-get (nginx wrk curl tinyproxy privoxy
#      squid; with sudo when not root), keeping the packages' own services from
#      starting;
#   2. makes a temporary folder with the origin content (1 KiB and 1 MiB
#      files), one configuration, pid file and log per daemon, and starts in
#      it, each on a free 127.0.0.1 port and in its own process group: nginx
#      (the origin), tinyproxy, privoxy (Debian's default actions and filters),
#      squid (no cache), ours (vxproxy run, every extension on) and ours-strict
#      (vxproxy run --strict, every extension off; left out with a note when
#      the binary rejects --strict);
#   3. checks every target returns both files whole;
#   4. wrk: for each file (1k, 1m), connection mode (keep-alive; a new
#      connection per request through "Connection: close") and connection
#      count, runs direct, tinyproxy, privoxy, squid, ours, ours-strict in turn
#      (so drift hits all alike): req/s, latency p50/p99, MiB/s;
#   5. curl: N sequential single requests (each a new process and connection)
#      per target, 1 KiB: p50 and p90 of time_total;
#   6. our memory and threads (VmRSS, Threads from /proc/PID/status): idle
#      after start, idle after the runs above, during 64 keep-alive
#      connections (max), during a burst of new connections (wrk c=64 with
#      Connection: close, sampled every second, max) and 5 s after it;
#   7. prints one table per measurement; "x_best" is the row's ratio to the
#      best peer (highest req/s or MiB/s among tinyproxy, privoxy and squid;
#      lowest p99 or curl p50), so above 1 is better for req/s and MiB/s and
#      worse for latencies.
# Everything it started is stopped on exit, error or Ctrl-C, and the
# temporary folder removed (unless --keep). Full mode takes about 15 minutes,
# quick mode about 3 (plus the first installation).
#
# Exit status: 0; 1 when something could not be started or a target failed
# its check; 2 for bad arguments.
set -Eeuo pipefail
trap 'note "error: line $LINENO: $BASH_COMMAND failed"' ERR

HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
LUA="$HERE/request.lua"
export PATH="$PATH:/usr/sbin:/sbin"
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

QUICK=0
BIN=""
LIST=""
RAW=""
DUR=""
WARM=1
CONNS=""
CURL_N=""
BURST=""
THREADS=1
INSTALL=1
KEEP=0

note() { printf 'bench: %s\n' "$*" >&2; }
die() { note "error: $*"; exit 1; }
usage_error() { note "$*"; note "see --help"; exit 2; }
usage() { sed -n '2,/^set -Eeuo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; }

while [ $# -gt 0 ]; do
  case $1 in
    --quick) QUICK=1 ;;
    --binary) [ $# -ge 2 ] || usage_error "--binary needs a path"; BIN=$2; shift ;;
    --list) [ $# -ge 2 ] || usage_error "--list needs a file"; LIST=$2; shift ;;
    -R) [ $# -ge 2 ] || usage_error "-R needs a file"; RAW=$2; shift ;;
    -d) [ $# -ge 2 ] || usage_error "-d needs seconds"; DUR=$2; shift ;;
    -w) [ $# -ge 2 ] || usage_error "-w needs seconds"; WARM=$2; shift ;;
    -c) [ $# -ge 2 ] || usage_error "-c needs a list"; CONNS=$2; shift ;;
    -n) [ $# -ge 2 ] || usage_error "-n needs a number"; CURL_N=$2; shift ;;
    -b) [ $# -ge 2 ] || usage_error "-b needs seconds"; BURST=$2; shift ;;
    -t) [ $# -ge 2 ] || usage_error "-t needs a number"; THREADS=$2; shift ;;
    --no-install) INSTALL=0 ;;
    --keep) KEEP=1 ;;
    -h|--help) usage; exit 0 ;;
    *) usage_error "unknown argument '$1'" ;;
  esac
  shift
done

if [ "$QUICK" = 1 ]; then
  : "${DUR:=3}" "${CONNS:=16}" "${CURL_N:=10}" "${BURST:=10}"
else
  : "${DUR:=10}" "${CONNS:=1 16 64}" "${CURL_N:=50}" "${BURST:=30}"
fi
num() { [[ $1 =~ ^[0-9]+$ ]] && [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]; }
num "$DUR" 1 120 || usage_error "-d must be 1..120 seconds"
num "$WARM" 0 30 || usage_error "-w must be 0..30 seconds"
num "$CURL_N" 0 1000 || usage_error "-n must be 0..1000"
num "$BURST" 1 300 || usage_error "-b must be 1..300 seconds"
num "$THREADS" 1 16 || usage_error "-t must be 1..16"
for c in $CONNS; do num "$c" 1 1000 || usage_error "bad connection count '$c' (1..1000)"; done
[ -n "$CONNS" ] || usage_error "-c needs at least one connection count"

# ------------------------------------------------------------------ install
SUDO=()
[ "$(id -u)" = 0 ] || SUDO=(sudo)
MADE_POLICY=0

install_missing() {
  local pair missing=()
  for pair in nginx:nginx wrk:wrk curl:curl tinyproxy:tinyproxy privoxy:privoxy squid:squid \
              iproute2:ss procps:pgrep; do
    command -v "${pair#*:}" > /dev/null 2>&1 || missing+=("${pair%%:*}")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$INSTALL" = 1 ] || die "missing: ${missing[*]} (and --no-install was given)"
  if [ ${#SUDO[@]} -gt 0 ] && ! command -v sudo > /dev/null 2>&1; then
    die "missing: ${missing[*]}; not root and no sudo to install them"
  fi
  note "installing: ${missing[*]}"
  # The packages would start their own services on the usual ports: a
  # policy-rc.d that refuses every start, for the time of the installation.
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' | "${SUDO[@]}" tee /usr/sbin/policy-rc.d > /dev/null
    "${SUDO[@]}" chmod 755 /usr/sbin/policy-rc.d
    MADE_POLICY=1
  fi
  local rc=0 log
  log=$(mktemp /tmp/vx-proxy-bench-apt.XXXXXX)
  { "${SUDO[@]}" apt-get update -q &&
    "${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -q --no-install-recommends "${missing[@]}"; } > "$log" 2>&1 || rc=$?
  if [ "$MADE_POLICY" = 1 ]; then "${SUDO[@]}" rm -f /usr/sbin/policy-rc.d; MADE_POLICY=0; fi
  if [ $rc != 0 ]; then tail -20 "$log" >&2; rm -f "$log"; die "apt-get failed"; fi
  rm -f "$log"
  for pair in nginx:nginx wrk:wrk curl:curl tinyproxy:tinyproxy privoxy:privoxy squid:squid; do
    command -v "${pair#*:}" > /dev/null 2>&1 || die "${pair#*:} still missing after apt-get"
  done
}

# ------------------------------------------------------------------ cleanup
TMP=""
PGIDS=()     # process groups of the daemons (each started with setsid)
BG_PIDS=()   # background wrk runs

# shellcheck disable=SC2317  # reached through the trap
cleanup() {
  local rc=$? pg p alive
  trap - EXIT INT TERM HUP
  for p in "${BG_PIDS[@]}"; do kill -TERM "$p" 2> /dev/null || true; done
  for pg in "${PGIDS[@]}"; do kill -TERM -- "-$pg" 2> /dev/null || true; done
  for _ in $(seq 1 50); do
    alive=0
    for pg in "${PGIDS[@]}"; do kill -0 -- "-$pg" 2> /dev/null && alive=1; done
    [ "$alive" = 0 ] && break
    sleep 0.1
  done
  for pg in "${PGIDS[@]}"; do kill -KILL -- "-$pg" 2> /dev/null || true; done
  for p in "${BG_PIDS[@]}"; do kill -KILL "$p" 2> /dev/null || true; done
  if [ "$MADE_POLICY" = 1 ]; then "${SUDO[@]}" rm -f /usr/sbin/policy-rc.d || true; fi
  if [ -n "$TMP" ] && [ -d "$TMP" ]; then
    if [ "$KEEP" = 1 ]; then note "kept $TMP"; else rm -rf "$TMP"; fi
  fi
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

install_missing
command -v ss > /dev/null || die "ss not found"
[ -r "$LUA" ] || die "missing $LUA"

# ------------------------------------------------------------------ ours
if [ -z "$BIN" ]; then
  BIN="$REPO/build/release/vxproxy"
  if [ ! -x "$BIN" ] || [ ! -e "$REPO/build/release/libvxproxy.so" ]; then
    note "building the release flavour (scripts/build.sh release)"
    "$REPO/scripts/build.sh" release --target vxproxy vxproxy_module > /dev/null
  fi
fi
[ -x "$BIN" ] || die "no vxproxy at $BIN"
BIN=$(readlink -f "$BIN")
[ -e "$(dirname "$BIN")/libvxproxy.so" ] || die "no libvxproxy.so beside $BIN"
if [ -z "$LIST" ]; then
  LIST="$REPO/../shared/data/easylist-joined.txt"
  [ -r "$LIST" ] || LIST="$REPO/data/default/filters.txt"
fi
[ -r "$LIST" ] || die "cannot read the filter list $LIST"
LIST=$(readlink -f "$LIST")

# ------------------------------------------------------------------ helpers
# render TEMPLATE OUT KEY=VALUE...: the template with every @KEY@ replaced.
render() {
  local text kv out=$2
  text=$(< "$1")
  shift 2
  for kv in "$@"; do text=${text//"@${kv%%=*}@"/"${kv#*=}"}; done
  printf '%s\n' "$text" > "$out"
}

# pick_port: a port below the ephemeral range that nothing uses -> $PORT
USED_PORTS=" "
pick_port() {
  local p
  for _ in $(seq 1 500); do
    p=$((20000 + RANDOM % 12000))
    [[ $USED_PORTS == *" $p "* ]] && continue
    [ -n "$(ss -Htan "( sport = :$p or dport = :$p )" 2> /dev/null)" ] && continue
    USED_PORTS+="$p "
    PORT=$p
    return 0
  done
  die "no free port found"
}

listening() { [ -n "$(ss -Hltn "( sport = :$1 )" 2> /dev/null)" ]; }

# wait_listen NAME PORT PID SECS: until PORT listens (0) or PID died or time ran out (1)
wait_listen() {
  for _ in $(seq 1 $(($4 * 10))); do
    listening "$2" && return 0
    kill -0 "$3" 2> /dev/null || { note "$1 exited before listening"; return 1; }
    sleep 0.1
  done
  note "$1 did not listen on 127.0.0.1:$2 within $4 s"
  return 1
}

# spawn NAME DIR CMD...: CMD in its own process group, output to DIR -> $SPAWNED
spawn() {
  local name=$1 dir=$2
  shift 2
  setsid "$@" > "$dir/$name.out" 2> "$dir/$name.err" < /dev/null &
  SPAWNED=$!
  PGIDS+=("$SPAWNED")
}

fail_log() { # fail_log FILE...: the end of each log, to stderr
  local f
  for f in "$@"; do [ -s "$f" ] && { note "--- $f"; tail -15 "$f" >&2; }; done
  return 0
}

status_of() { # status_of PID FIELD -> the number after "FIELD:" in /proc/PID/status
  awk -v k="$2:" '$1 == k { print $2; exit }' "/proc/$1/status" 2> /dev/null || true
}

# ------------------------------------------------------------------ folder
TMP=$(mktemp -d /tmp/vx-proxy-bench.XXXXXX)
chmod 755 "$TMP"
ROOT=0
[ "$(id -u)" = 0 ] && ROOT=1
owned_dir() { # owned_dir DIR USER: DIR, owned by USER when root
  mkdir -p "$1"
  if [ $ROOT = 1 ] && id "$2" > /dev/null 2>&1; then chown "$2" "$1"; fi
}

FILES="1k 1m"
declare -A FILE_PATH=([1k]=/f/1k.bin [1m]=/f/1m.bin) FILE_SIZE=([1k]=1024 [1m]=1048576)
mkdir -p "$TMP/www/f"
for f in $FILES; do head -c "${FILE_SIZE[$f]}" /dev/urandom > "$TMP/www${FILE_PATH[$f]}"; done
chmod -R a+rX "$TMP/www"

declare -A PORT_OF=() PID_OF=()
LABELS=(direct)
PEERS=()

# ------------------------------------------------------------------ origin
start_nginx() {
  local d="$TMP/nginx" user_line=""
  mkdir -p "$d/tmp"
  if [ $ROOT = 1 ]; then
    user_line="user www-data $(id -gn www-data 2> /dev/null || echo nogroup);"
    id www-data > /dev/null 2>&1 || user_line="user nobody nogroup;"
  fi
  pick_port
  render "$HERE/nginx.conf.in" "$d/nginx.conf" USER_LINE="$user_line" DIR="$d" PORT="$PORT" WWW="$TMP/www"
  nginx -t -q -p "$d" -e "$d/error.log" -c "$d/nginx.conf" 2> "$d/test.err" \
    || { fail_log "$d/test.err"; die "nginx rejected its configuration"; }
  spawn nginx "$d" nginx -p "$d" -e "$d/error.log" -c "$d/nginx.conf"
  wait_listen nginx "$PORT" "$SPAWNED" 10 || { fail_log "$d/error.log" "$d/nginx.err"; die "nginx did not start"; }
  PORT_OF[direct]=$PORT
  PID_OF[direct]=$SPAWNED
  ORIGIN="127.0.0.1:$PORT"
}

# ------------------------------------------------------------------ peers
start_tinyproxy() {
  local d="$TMP/tinyproxy" users=""
  owned_dir "$d" tinyproxy
  [ $ROOT = 1 ] && users=$'User tinyproxy\nGroup tinyproxy'
  if [ $ROOT = 1 ] && ! id tinyproxy > /dev/null 2>&1; then users=$'User nobody\nGroup nogroup'; chown nobody "$d"; fi
  pick_port
  render "$HERE/tinyproxy.conf.in" "$d/tinyproxy.conf" USER_LINES="$users" DIR="$d" PORT="$PORT"
  spawn tinyproxy "$d" tinyproxy -d -c "$d/tinyproxy.conf"
  wait_listen tinyproxy "$PORT" "$SPAWNED" 10 || { fail_log "$d/tinyproxy.log" "$d/tinyproxy.err"; die "tinyproxy did not start"; }
  PORT_OF[tinyproxy]=$PORT
  PID_OF[tinyproxy]=$SPAWNED
}

start_privoxy() {
  local d="$TMP/privoxy" user=()
  owned_dir "$d" privoxy
  if [ $ROOT = 1 ]; then
    if id privoxy > /dev/null 2>&1; then user=(--user privoxy); else user=(--user nobody); chown nobody "$d"; fi
  fi
  pick_port
  render "$HERE/privoxy.conf.in" "$d/privoxy.conf" DIR="$d" PORT="$PORT"
  spawn privoxy "$d" privoxy --no-daemon --pidfile "$d/privoxy.pid" "${user[@]}" "$d/privoxy.conf"
  wait_listen privoxy "$PORT" "$SPAWNED" 10 || { fail_log "$d/privoxy.log" "$d/privoxy.err"; die "privoxy did not start"; }
  PORT_OF[privoxy]=$PORT
  PID_OF[privoxy]=$SPAWNED
}

start_squid() {
  local d="$TMP/squid" users=""
  owned_dir "$d" proxy
  [ $ROOT = 1 ] && users=$'cache_effective_user proxy\ncache_effective_group proxy'
  if [ $ROOT = 1 ] && ! id proxy > /dev/null 2>&1; then users=$'cache_effective_user nobody\ncache_effective_group nogroup'; chown nobody "$d"; fi
  pick_port
  render "$HERE/squid.conf.in" "$d/squid.conf" USER_LINES="$users" DIR="$d" PORT="$PORT"
  squid -k parse -f "$d/squid.conf" > "$d/parse.log" 2>&1 || { fail_log "$d/parse.log"; die "squid rejected its configuration"; }
  spawn squid "$d" squid -N -f "$d/squid.conf"
  wait_listen squid "$PORT" "$SPAWNED" 20 || { fail_log "$d/cache.log" "$d/squid.err"; die "squid did not start"; }
  PORT_OF[squid]=$PORT
  PID_OF[squid]=$SPAWNED
}

# ------------------------------------------------------------------ ours
declare -A IDLE_RSS=() IDLE_THR=()
# start_ours LABEL EXTRA-ARGS...: 0 when listening; 1 when it would not start
start_ours() {
  local label=$1 d="$TMP/$1" line
  shift
  mkdir -p "$d/data" "$d/filters"
  ln -s "$LIST" "$d/filters/filters.txt"
  pick_port
  printf '[Vexilo]\nPort=%s\n' "$PORT" > "$d/data/vexilo.ini"
  spawn vxproxy "$d" "$BIN" run --data "$d/data" --filters "$d/filters" "$@"
  for _ in $(seq 1 600); do
    line=$(grep -m1 '^vxproxy: listening on ' "$d/vxproxy.out" 2> /dev/null || true)
    [ -n "$line" ] && break
    kill -0 "$SPAWNED" 2> /dev/null || break
    sleep 0.1
  done
  if [ -z "$line" ]; then
    kill -TERM -- "-$SPAWNED" 2> /dev/null || true
    note "$label did not start: $(tr '\n' ' ' < "$d/vxproxy.err" | cut -c1-300)"
    return 1
  fi
  [ "$line" = "vxproxy: listening on 127.0.0.1:$PORT" ] || die "$label: expected port $PORT, got: $line"
  wait_listen "$label" "$PORT" "$SPAWNED" 10 || die "$label printed its port but does not listen"
  PORT_OF[$label]=$PORT
  PID_OF[$label]=$SPAWNED
  sleep 1
  IDLE_RSS[$label]=$(status_of "$SPAWNED" VmRSS)
  IDLE_THR[$label]=$(status_of "$SPAWNED" Threads)
  return 0
}

STRICT_NOTE=""
start_nginx
start_tinyproxy; PEERS+=(tinyproxy)
start_privoxy; PEERS+=(privoxy)
start_squid; PEERS+=(squid)
LABELS+=("${PEERS[@]}")
OURS=(ours)
start_ours ours || die "ours did not start (logs: $TMP/ours)"
if start_ours ours-strict --strict; then
  OURS+=(ours-strict)
else
  if grep -q -- '--strict' "$TMP/ours-strict/vxproxy.err" 2> /dev/null; then
    STRICT_NOTE="ours-strict left out: this vxproxy rejects --strict"
  else
    STRICT_NOTE="ours-strict left out: it did not start with --strict"
  fi
  note "$STRICT_NOTE"
fi
LABELS+=("${OURS[@]}")

# Every daemon listens on loopback only.
for l in "${LABELS[@]}"; do
  bad=$(ss -Hltn "( sport = :${PORT_OF[$l]} )" | awk '{ print $4 }' | grep -v '^127\.0\.0\.1:' || true)
  [ -z "$bad" ] || note "note: $l listens on $bad, not on 127.0.0.1 alone (the bench talks to it on 127.0.0.1)"
done

# ------------------------------------------------------------------ header
url() { printf 'http://%s%s' "$ORIGIN" "${FILE_PATH[$1]}"; }
curl_via() { # curl_via LABEL CURL-ARGS...: through LABEL's port (direct: none)
  local l=$1
  shift
  if [ "$l" = direct ]; then
    curl -s --max-time 10 --noproxy '*' "$@"
  else
    curl -s --max-time 10 --proxy "http://127.0.0.1:${PORT_OF[$l]}" "$@"
  fi
}

# (wrk -v exits 1; the others may meet a closed pipe)
ver_nginx=$( (nginx -v 2>&1 || true) | sed 's/.*nginx\///')
ver_tiny=$( (tinyproxy -v 2>&1 || true) | awk 'NR == 1 { print $2 }')
ver_priv=$( (privoxy --version 2>&1 || true) | awk 'NR == 1 { print $3 }')
ver_squid=$( (squid -v 2>&1 || true) | awk '/Version/ && !v { v = $NF } END { print v }')
ver_wrk=$( (wrk -v 2>&1 || true) | awk 'NR == 1 { print $2 }')
ours_rev=$(git -C "$REPO" rev-parse --short HEAD 2> /dev/null || echo unknown)
[ -n "$(git -C "$REPO" status --porcelain --untracked-files=no 2> /dev/null || true)" ] && ours_rev+="+changes"

printf '# vx proxy bench %s  %s mode  host=%s cpus=%s load=%s\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" \
  "$([ "$QUICK" = 1 ] && echo quick || echo full)" "$(hostname)" "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf '# wrk %s: %s s runs (+%s s warm-up), %s thread(s), connections "%s"; curl %s samples; burst %s s\n' \
  "$ver_wrk" "$DUR" "$WARM" "$THREADS" "$CONNS" "$CURL_N" "$BURST"
printf '# origin nginx %s on %s; files%s (application/octet-stream, Content-Length)\n' \
  "$ver_nginx" "$ORIGIN" "$(for f in $FILES; do printf ' %s' "${FILE_PATH[$f]}"; done)"
printf '#   %-12s 127.0.0.1:%-6s %s\n' tinyproxy "${PORT_OF[tinyproxy]}" "$ver_tiny" \
  privoxy "${PORT_OF[privoxy]}" "$ver_priv (Debian default actions and filters)" \
  squid "${PORT_OF[squid]}" "$ver_squid (no cache)"
for l in "${OURS[@]}"; do
  printf '#   %-12s 127.0.0.1:%-6s %s\n' "$l" "${PORT_OF[$l]}" \
    "$ours_rev $([ "$l" = ours ] && echo 'every extension on' || echo '--strict, every extension off')"
done
printf '#   ours binary %s\n#   ours list %s (%s lines)\n' "$BIN" "$LIST" "$(wc -l < "$LIST")"
[ -n "$STRICT_NOTE" ] && printf '#   %s\n' "$STRICT_NOTE"

if [ -n "$RAW" ]; then
  printf 'kind\ttarget\tfile\tmode\tconns\tmetric\tvalue\n' > "$RAW"
fi
tsv() { [ -z "$RAW" ] || { local IFS=$'\t'; printf '%s\n' "$*" >> "$RAW"; }; }
STATUS=0

# ------------------------------------------------------------------ checks
declare -A BROKEN=()
for l in "${LABELS[@]}"; do
  for f in $FILES; do
    got=$(curl_via "$l" -o /dev/null -w '%{http_code} %{size_download}' "$(url "$f")" || true)
    if [ "$got" != "200 ${FILE_SIZE[$f]}" ]; then
      BROKEN[$l|$f]=1; STATUS=1
      note "check failed: $l $f: got '${got:-no answer}', want '200 ${FILE_SIZE[$f]}'"
    fi
  done
done

# ------------------------------------------------------------------ wrk
declare -A RPS=() P50=() P99=() MIBS=() ERRS=() RDS=()
kv() { sed -n "s/.*[[:space:]]$1=\([0-9]*\).*/\1/p" <<< "$2"; }

# wrk_cmd LABEL FILE MODE CONNS SECS: the wrk command line
wrk_cmd() {
  local l=$1 t=$THREADS how=proxy
  [ "$t" -gt "$4" ] && t=$4
  [ "$l" = direct ] && how=direct
  WRK=(timeout --foreground -k 5 $(($5 + 30)) wrk -t "$t" -c "$4" -d "${5}s" --timeout 5s
       -s "$LUA" "http://127.0.0.1:${PORT_OF[$l]}/" -- "$how" "${FILE_PATH[$2]}" "$ORIGIN" "$3")
}

# record KEY LINE [KIND]: the figures of one VXBENCH line into the arrays and
# the TSV (KEY is target|file|mode|conns, with |moment for the memory loads)
record() {
  local k=$1 r=$2 kind=${3:-wrk} req dus by
  req=$(kv requests "$r"); dus=$(kv duration_us "$r"); by=$(kv bytes "$r")
  if [ -z "$req" ] || [ "$req" = 0 ] || [ -z "$dus" ] || [ "$dus" = 0 ]; then
    RPS[$k]=failed; return 1
  fi
  RPS[$k]=$(awk -v n="$req" -v d="$dus" 'BEGIN { printf "%.0f", n / (d / 1e6) }')
  MIBS[$k]=$(awk -v n="$by" -v d="$dus" 'BEGIN { printf "%.1f", n / (d / 1e6) / 1048576 }')
  P50[$k]=$(kv p50_us "$r"); P99[$k]=$(kv p99_us "$r")
  ERRS[$k]=$(( $(kv connect "$r") + $(kv write "$r") + $(kv status "$r") + $(kv timeout "$r") ))
  RDS[$k]=$(kv read "$r")
  local t f m c
  IFS='|' read -r t f m c _ <<< "$k"
  tsv "$kind" "$t" "$f" "$m" "$c" req_s "${RPS[$k]}"
  tsv "$kind" "$t" "$f" "$m" "$c" mib_s "${MIBS[$k]}"
  tsv "$kind" "$t" "$f" "$m" "$c" p50_us "${P50[$k]}"
  tsv "$kind" "$t" "$f" "$m" "$c" p99_us "${P99[$k]}"
  tsv "$kind" "$t" "$f" "$m" "$c" requests "$req"
  tsv "$kind" "$t" "$f" "$m" "$c" errors "${ERRS[$k]}"
  tsv "$kind" "$t" "$f" "$m" "$c" read_errors "${RDS[$k]}"
}

MODES="keep close"
cells=0
for f in $FILES; do for m in $MODES; do for c in $CONNS; do cells=$((cells + 1)); done; done; done
note "wrk: $cells cells x ${#LABELS[@]} targets, about $((cells * ${#LABELS[@]} * (DUR + WARM) / 60 + 1)) min"
for f in $FILES; do
  for m in $MODES; do
    for c in $CONNS; do
      for l in "${LABELS[@]}"; do
        k="$l|$f|$m|$c"
        if [ -n "${BROKEN[$l|$f]:-}" ]; then RPS[$k]=broken; continue; fi
        if [ "$WARM" -gt 0 ]; then
          wrk_cmd "$l" "$f" "$m" "$c" "$WARM"
          "${WRK[@]}" > /dev/null 2>&1 || true
        fi
        wrk_cmd "$l" "$f" "$m" "$c" "$DUR"
        r=$("${WRK[@]}" 2> "$TMP/wrk.err" | grep '^VXBENCH' || true)
        if ! record "$k" "$r"; then
          STATUS=1; note "wrk failed: $l $f $m c=$c: $(head -c 300 "$TMP/wrk.err")"; continue
        fi
        note "$(printf '%-11s %-2s %-5s c=%-3s %8s req/s %8s MiB/s  p50 %6s us  p99 %7s us  err %s rd %s' \
          "$l" "$f" "$m" "$c" "${RPS[$k]}" "${MIBS[$k]}" "${P50[$k]}" "${P99[$k]}" "${ERRS[$k]}" "${RDS[$k]}")"
      done
    done
  done
done

# ------------------------------------------------------------------ curl
declare -A CP50=() CP90=() CFAIL=()
percentile() { # percentile P < numbers: nearest rank
  sort -g | awk -v p="$1" '{ v[NR] = $1 } END {
    if (NR == 0) { print ""; exit }
    i = int(p / 100 * NR); if (i < p / 100 * NR) i++; if (i < 1) i = 1
    print v[i] }'
}
if [ "$CURL_N" -gt 0 ]; then
  note "curl: $CURL_N single requests per target"
  for l in "${LABELS[@]}"; do
    [ -n "${BROKEN[$l|1k]:-}" ] && continue
    : > "$TMP/curl.times"
    fails=0
    for _ in $(seq 1 "$CURL_N"); do
      out=$(curl_via "$l" -o /dev/null -w '%{http_code} %{time_total}' "$(url 1k)" || true)
      if [ "${out%% *}" = 200 ]; then
        awk '{ printf "%.0f\n", $2 * 1e6 }' <<< "$out" >> "$TMP/curl.times"
      else
        fails=$((fails + 1))
      fi
    done
    CFAIL[$l]=$fails
    CP50[$l]=$(percentile 50 < "$TMP/curl.times")
    CP90[$l]=$(percentile 90 < "$TMP/curl.times")
    tsv curl "$l" 1k new 1 p50_us "${CP50[$l]:-}"
    tsv curl "$l" 1k new 1 p90_us "${CP90[$l]:-}"
    tsv curl "$l" 1k new 1 failures "$fails"
  done
fi

# ------------------------------------------------------------------ memory
declare -A MEM=() THR=() LIVE=()
# sample_max LABEL MOMENT: one RSS/Threads/connections sample, kept when higher
sample_max() {
  local pid=${PID_OF[$1]} k="$1|$2" rss thr live
  rss=$(status_of "$pid" VmRSS); thr=$(status_of "$pid" Threads)
  live=$(ss -Htn state established "( sport = :${PORT_OF[$1]} )" 2> /dev/null | wc -l)
  [ -n "$rss" ] && [ -n "$thr" ] || return 0
  [ "$rss" -gt "${MEM[$k]:--1}" ] && MEM[$k]=$rss
  [ "$thr" -gt "${THR[$k]:--1}" ] && THR[$k]=$thr
  [ "$live" -gt "${LIVE[$k]:--1}" ] && LIVE[$k]=$live
  return 0
}
# load_and_sample LABEL MOMENT MODE SECS: wrk c=64 on 1k in the background,
# sampling every second while it runs
load_and_sample() {
  local l=$1 moment=$2 wpid r
  wrk_cmd "$l" 1k "$3" 64 "$4"
  "${WRK[@]}" > "$TMP/load.out" 2> "$TMP/load.err" &
  wpid=$!
  BG_PIDS+=("$wpid")
  sleep 0.5
  for _ in $(seq 1 $(($4 + 40))); do
    kill -0 "$wpid" 2> /dev/null || break
    sample_max "$l" "$moment"
    sleep 1
  done
  wait "$wpid" 2> /dev/null || true
  r=$(grep '^VXBENCH' "$TMP/load.out" || true)
  record "$l|1k|$3|64|$moment" "$r" "load-$moment" || note "wrk failed during the $moment load on $l"
}

for l in "${OURS[@]}"; do
  pid=${PID_OF[$l]}
  kill -0 "$pid" 2> /dev/null || { note "$l is gone before the memory figures"; STATUS=1; continue; }
  note "memory: $l (64 keep-alive connections for $DUR s, then a $BURST s burst of new connections)"
  MEM[$l|idle-start]=${IDLE_RSS[$l]}; THR[$l|idle-start]=${IDLE_THR[$l]}
  sample_max "$l" idle-later
  load_and_sample "$l" ka64 keep "$DUR"
  sleep 2
  load_and_sample "$l" burst close "$BURST"
  sleep 5
  sample_max "$l" after-burst
  for mo in idle-start idle-later ka64 burst after-burst; do
    tsv mem "$l" - "$mo" - rss_kib "${MEM[$l|$mo]:-}"
    tsv mem "$l" - "$mo" - threads "${THR[$l|$mo]:-}"
    [ -n "${LIVE[$l|$mo]:-}" ] && tsv mem "$l" - "$mo" - live_conns "${LIVE[$l|$mo]}"
  done
done

# ------------------------------------------------------------------ tables
ratio() { # ratio A B -> A/B, "-" when either is missing
  awk -v a="$1" -v b="$2" 'BEGIN {
    if (a !~ /^[0-9.]+$/ || b !~ /^[0-9.]+$/ || b + 0 == 0) { print "-"; exit }
    printf "%.2f", a / b }'
}
ms() { awk -v u="$1" 'BEGIN { if (u !~ /^[0-9.]+$/) print "-"; else printf "%.2f", u / 1000 }'; }
# best_peer ARRAY KEY-SUFFIX max|min -> the best figure among the peers
best_peer() {
  local -n arr=$1
  local p v best=""
  for p in "${PEERS[@]}"; do
    v=${arr[$p${2:+|$2}]:-}
    [[ $v =~ ^[0-9.]+$ ]] || continue
    if [ -z "$best" ] || awk -v a="$v" -v b="$best" -v w="$3" 'BEGIN { exit !(w == "max" ? a > b : a < b) }'; then
      best=$v
    fi
  done
  printf '%s' "$best"
}

declare -A MODE_NAME=([keep]="keep-alive" [close]="new connection per request (Connection: close)")
declare -A SIZE_NAME=([1k]="1 KiB" [1m]="1 MiB")
for f in $FILES; do
  for m in $MODES; do
    printf '\nwrk %s, %s; x_best = ratio to the best peer\n' "${SIZE_NAME[$f]}" "${MODE_NAME[$m]}"
    printf '%5s %-12s %9s %6s %8s %8s %6s %8s %6s %6s %6s\n' \
      conns target 'req/s' x_best p50_ms p99_ms x_best 'MiB/s' x_best err rd
    for c in $CONNS; do
      s="$f|$m|$c"
      br=$(best_peer RPS "$s" max); bp=$(best_peer P99 "$s" min); bm=$(best_peer MIBS "$s" max)
      for l in "${LABELS[@]}"; do
        k="$l|$s"
        case ${RPS[$k]:-} in
          broken|failed|'') printf '%5s %-12s %9s\n' "$c" "$l" "${RPS[$k]:-?}"; continue ;;
        esac
        printf '%5s %-12s %9s %6s %8s %8s %6s %8s %6s %6s %6s\n' "$c" "$l" "${RPS[$k]}" \
          "$(ratio "${RPS[$k]}" "$br")" "$(ms "${P50[$k]}")" "$(ms "${P99[$k]}")" \
          "$(ratio "${P99[$k]}" "$bp")" "${MIBS[$k]}" "$(ratio "${MIBS[$k]}" "$bm")" \
          "${ERRS[$k]}" "${RDS[$k]}"
      done
    done
  done
done
printf '(err: connect, write, timeout and non-2xx/3xx errors; rd: read errors, which wrk\n'
printf ' also counts when a proxy closes a connection without saying Connection: close)\n'

if [ "$CURL_N" -gt 0 ]; then
  printf '\ncurl, one 1 KiB request per new process and connection, %s samples (time_total)\n' "$CURL_N"
  printf '%-12s %8s %6s %8s %6s\n' target p50_ms x_best p90_ms failed
  bc50=$(best_peer CP50 "" min)
  for l in "${LABELS[@]}"; do
    if [ -z "${CFAIL[$l]:-}" ]; then printf '%-12s %8s\n' "$l" broken; continue; fi
    printf '%-12s %8s %6s %8s %6s\n' "$l" "$(ms "${CP50[$l]:-}")" "$(ratio "${CP50[$l]:-}" "$bc50")" \
      "$(ms "${CP90[$l]:-}")" "${CFAIL[$l]}"
  done
fi

printf '\nour memory and threads (VmRSS and Threads of the vxproxy process)\n'
printf '%-12s %-34s %9s %8s %11s\n' target moment 'RSS_MiB' threads client_conns
mib() { awk -v k="$1" 'BEGIN { if (k !~ /^[0-9]+$/) print "-"; else printf "%.1f", k / 1024 }'; }
declare -A MOMENT_NAME=(
  [idle-start]="idle after start"
  [idle-later]="idle after the runs above"
  [ka64]="64 keep-alive conns (max, ${DUR} s)"
  [burst]="burst, c=64 new conns (max, ${BURST} s)"
  [after-burst]="5 s after the burst")
for l in "${OURS[@]}"; do
  for mo in idle-start idle-later ka64 burst after-burst; do
    printf '%-12s %-34s %9s %8s %11s\n' "$l" "${MOMENT_NAME[$mo]}" "$(mib "${MEM[$l|$mo]:-}")" \
      "${THR[$l|$mo]:--}" "${LIVE[$l|$mo]:--}"
  done
  for mo in ka64 burst; do
    k="$l|1k|$([ $mo = ka64 ] && echo keep || echo close)|64|$mo"
    [[ ${RPS[$k]:-} =~ ^[0-9]+$ ]] && printf '%-12s   (%s load: %s req/s, err %s, rd %s)\n' "$l" "$mo" "${RPS[$k]}" "${ERRS[$k]}" "${RDS[$k]}"
  done
done
[ -n "$STRICT_NOTE" ] && printf '\nnote: %s\n' "$STRICT_NOTE"
[ -n "$RAW" ] && note "measurements written to $RAW"
exit $STATUS
