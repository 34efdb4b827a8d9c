#!/usr/bin/env bash
# soak.sh - ten minutes (by default) of mixed traffic through `vxproxy run`,
# watching whether the proxy's memory, descriptors and threads stay flat and
# whether every properly answered request comes back right.
#
# Usage: bench/soak/soak.sh [options]
#   --minutes N      length of the load (default 10)
#   --short          a 2-minute load, for trying it
#   --seconds N      length of the load in seconds (overrides the two above)
#   --out DIR        where the results go (default /tmp/vx-soak.<date>-<time>;
#                    made when missing, files in it replaced)
#   --binary PATH    the vxproxy host program (libvxproxy.so beside it); by
#                    default build/release/vxproxy, built (with the driver)
#                    by scripts/build.sh release
#   --driver PATH    the load driver (default build/release/bench/soak/
#                    soak_driver, built with the proxy)
#   --no-self-aimed  leave out the request aimed at the proxy's own port
#                    that the load sends every ~10 s
#   --seed N         seed of the load's random choices (default 1)
#   --no-install     never call apt-get; fail when a tool is missing
#   --keep           keep the work folder (configurations, the proxy's logs)
#   -h, --help       this text
#
# What it does:
#   1. installs what is missing with apt-get (nginx, gnuplot-nox, curl,
#      iproute2, procps; with sudo when not root), keeping nginx's own
#      service from starting;
#   2. builds build/release (vxproxy, the module, bench/soak's soak_driver);
#   3. starts in a temporary folder, on free 127.0.0.1 ports: nginx as the
#      origin of plain files (bench/proxy/nginx.conf.in; 1 KiB to 1 MiB) and
#      `vxproxy run` with data and log folders of its own and a filter list
#      (the starter list plus a rule for /soakad/) that blocks a share of
#      the traffic;
#   4. runs soak_driver for the given time: its own origin (chunked, slow,
#      unframed and misbehaving answers: stalls, early closes, hang-ups,
#      garbage) and a tunnel echo server beside nginx, and lanes of traffic
#      through the proxy: keep-alive connections (nginx files, counted and
#      chunked bodies, uploads, blocked addresses), CONNECT tunnels, clients
#      that go away mid-request and mid-response, slow origins, a slowloris
#      share (headers a few bytes at a time), idle tunnels and now and then
#      a request aimed at the proxy's own port (which must be refused at
#      once); every reply a well-behaved
#      server gave is checked (status, length, checksum);
#   5. samples the proxy's resident memory (VmRSS), open descriptors and
#      threads every second from /proc, from before the load until 30 s
#      after it (or until descriptors and threads are back at their idle
#      values);
#   6. judges and writes to the output folder: summary.txt (start, peak and
#      end of each series, the first and last minute's peaks, the trend,
#      requests by kind, failures, the verdict), series.tsv, counts.tsv,
#      driver.txt, soak.png (the three series, by gnuplot) and the end of the
#      proxy's proxy.log.
#
# Flat means, for each series: the peak of the load's last minute is at most
# the peak of its first minute plus the margin, and the least-squares trend
# over the load after its first minute adds up to at most the margin over
# that time. Margins: memory 5 % + 4 MiB, descriptors and threads 10 % + 8.
# (A shorter load uses a quarter of its length for "minute".) After the load
# the proxy must be back at its idle descriptors and threads (+2 each).
# Passed when all three are flat and back, no checked request failed, no
# misbehaving case hung, no blocked address reached the origin, and the
# proxy is still running.
#
# Everything it started is stopped on exit, error or Ctrl-C.
#
# Exit status: 0 passed; 1 failed or something could not be started; 2 bad
# arguments.
set -Eeuo pipefail
trap 'note "error: line $LINENO: $BASH_COMMAND failed"' ERR

HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
export PATH="$PATH:/usr/sbin:/sbin"
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY

SECONDS_LOAD=600
BIN=""
DRIVER=""
OUT=""
SELF_AIMED=1
SEED=1
INSTALL=1
KEEP=0
DRAIN_MAX=30
SELF_AIMED_EVERY=10

note() { printf 'soak: %s\n' "$*" >&2; }
die() { note "error: $*"; exit 1; }
usage_error() { note "$*"; note "see --help"; exit 2; }
usage() { sed -n '2,/^set -Eeuo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//'; }
num() { [[ $1 =~ ^[0-9]+$ ]] && [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]; }

while [ $# -gt 0 ]; do
  case $1 in
    --minutes) [ $# -ge 2 ] || usage_error "--minutes needs a number"
               num "$2" 1 240 || usage_error "--minutes must be 1..240"; SECONDS_LOAD=$(($2 * 60)); shift ;;
    --short) SECONDS_LOAD=120 ;;
    --seconds) [ $# -ge 2 ] || usage_error "--seconds needs a number"
               num "$2" 10 14400 || usage_error "--seconds must be 10..14400"; SECONDS_LOAD=$2; shift ;;
    --out) [ $# -ge 2 ] || usage_error "--out needs a folder"; OUT=$2; shift ;;
    --binary) [ $# -ge 2 ] || usage_error "--binary needs a path"; BIN=$2; shift ;;
    --driver) [ $# -ge 2 ] || usage_error "--driver needs a path"; DRIVER=$2; shift ;;
    --no-self-aimed) SELF_AIMED=0 ;;
    --seed) [ $# -ge 2 ] || usage_error "--seed needs a number"
            num "$2" 0 1000000000 || usage_error "--seed must be 0..1000000000"; SEED=$2; shift ;;
    --no-install) INSTALL=0 ;;
    --keep) KEEP=1 ;;
    -h|--help) usage; exit 0 ;;
    *) usage_error "unknown argument '$1'" ;;
  esac
  shift
done
[ -n "$OUT" ] || OUT=/tmp/vx-soak.$(date +%Y%m%d-%H%M%S)
mkdir -p "$OUT" || die "cannot make $OUT"
OUT=$(cd "$OUT" && pwd)

# ------------------------------------------------------------------ install
SUDO=()
[ "$(id -u)" = 0 ] || SUDO=(sudo)
MADE_POLICY=0

install_missing() {
  local pair missing=() log rc=0
  for pair in nginx:nginx gnuplot-nox:gnuplot curl:curl iproute2:ss procps:pgrep; do
    command -v "${pair#*:}" > /dev/null 2>&1 || missing+=("${pair%%:*}")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$INSTALL" = 1 ] || die "missing: ${missing[*]} (and --no-install was given)"
  if [ ${#SUDO[@]} -gt 0 ] && ! command -v sudo > /dev/null 2>&1; then
    die "missing: ${missing[*]}; not root and no sudo to install them"
  fi
  note "installing: ${missing[*]}"
  # nginx would start its own service on port 80: a policy-rc.d that
  # refuses every start, for the time of the installation.
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' | "${SUDO[@]}" tee /usr/sbin/policy-rc.d > /dev/null
    "${SUDO[@]}" chmod 755 /usr/sbin/policy-rc.d
    MADE_POLICY=1
  fi
  log=$(mktemp /tmp/vx-soak-apt.XXXXXX)
  { "${SUDO[@]}" apt-get update -q &&
    "${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -q --no-install-recommends "${missing[@]}"; } > "$log" 2>&1 || rc=$?
  if [ "$MADE_POLICY" = 1 ]; then "${SUDO[@]}" rm -f /usr/sbin/policy-rc.d; MADE_POLICY=0; fi
  if [ $rc != 0 ]; then tail -20 "$log" >&2; rm -f "$log"; die "apt-get failed"; fi
  rm -f "$log"
  for pair in nginx:nginx gnuplot-nox:gnuplot curl:curl iproute2:ss procps:pgrep; do
    command -v "${pair#*:}" > /dev/null 2>&1 || die "${pair#*:} still missing after apt-get"
  done
}

# ------------------------------------------------------------------ cleanup
TMP=""
PGIDS=()     # process groups of nginx, the proxy and the driver (setsid)
SAMPLER=""   # the sampling loop

# shellcheck disable=SC2317  # reached through the trap
cleanup() {
  local rc=$? pg alive
  trap - EXIT INT TERM HUP
  if [ -n "$SAMPLER" ]; then kill -TERM "$SAMPLER" 2> /dev/null || true; fi
  for pg in "${PGIDS[@]}"; do kill -TERM -- "-$pg" 2> /dev/null || true; done
  for _ in $(seq 1 50); do
    alive=0
    for pg in "${PGIDS[@]}"; do kill -0 -- "-$pg" 2> /dev/null && alive=1; done
    [ "$alive" = 0 ] && break
    sleep 0.1
  done
  for pg in "${PGIDS[@]}"; do kill -KILL -- "-$pg" 2> /dev/null || true; done
  if [ -n "$SAMPLER" ]; then kill -KILL "$SAMPLER" 2> /dev/null || true; fi
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

# ------------------------------------------------------------------ build
targets=()
[ -z "$BIN" ] && targets+=(vxproxy vxproxy_module)
[ -z "$DRIVER" ] && targets+=(soak_driver)
if [ ${#targets[@]} -gt 0 ]; then
  note "building the release flavour (scripts/build.sh release --target ${targets[*]})"
  "$REPO/scripts/build.sh" release --target "${targets[@]}" > /dev/null
fi
: "${BIN:=$REPO/build/release/vxproxy}" "${DRIVER:=$REPO/build/release/bench/soak/soak_driver}"
[ -x "$BIN" ] || die "no vxproxy at $BIN"
BIN=$(readlink -f "$BIN")
[ -e "$(dirname "$BIN")/libvxproxy.so" ] || die "no libvxproxy.so beside $BIN"
[ -x "$DRIVER" ] || die "no soak_driver at $DRIVER"

# ------------------------------------------------------------------ helpers
render() { # render TEMPLATE OUT KEY=VALUE...: the template with every @KEY@ replaced
  local text kv out=$2
  text=$(< "$1")
  shift 2
  for kv in "$@"; do text=${text//"@${kv%%=*}@"/"${kv#*=}"}; done
  printf '%s\n' "$text" > "$out"
}

USED_PORTS=" "
pick_port() { # a port below the ephemeral range that nothing uses -> $PORT
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

spawn() { # spawn NAME DIR CMD...: CMD in its own process group -> $SPAWNED
  local name=$1 dir=$2
  shift 2
  setsid "$@" > "$dir/$name.out" 2> "$dir/$name.err" < /dev/null &
  SPAWNED=$!
  PGIDS+=("$SPAWNED")
}

fail_log() { # the end of each log, to stderr
  local f
  for f in "$@"; do [ -s "$f" ] && { note "--- $f"; tail -15 "$f" >&2; }; done
  return 0
}

# ------------------------------------------------------------------ folder
TMP=$(mktemp -d /tmp/vx-soak.XXXXXX)
chmod 755 "$TMP"
mkdir -p "$TMP/www/f"
for f in 1k:1024 16k:16384 256k:262144 1m:1048576; do
  head -c "${f#*:}" /dev/urandom > "$TMP/www/f/${f%%:*}.bin"
done
chmod -R a+rX "$TMP/www"

# ------------------------------------------------------------------ nginx
d="$TMP/nginx"
mkdir -p "$d/tmp"
user_line=""
if [ "$(id -u)" = 0 ]; then
  user_line="user www-data $(id -gn www-data 2> /dev/null || echo nogroup);"
  id www-data > /dev/null 2>&1 || user_line="user nobody nogroup;"
fi
pick_port
NGINX_PORT=$PORT
render "$REPO/bench/proxy/nginx.conf.in" "$d/nginx.conf" USER_LINE="$user_line" DIR="$d" PORT="$PORT" WWW="$TMP/www"
nginx -t -q -p "$d" -e "$d/error.log" -c "$d/nginx.conf" 2> "$d/test.err" \
  || { fail_log "$d/test.err"; die "nginx rejected its configuration"; }
spawn nginx "$d" nginx -p "$d" -e "$d/error.log" -c "$d/nginx.conf"
NGINX_PID=$SPAWNED
for _ in $(seq 1 100); do
  listening "$NGINX_PORT" && break
  kill -0 "$NGINX_PID" 2> /dev/null || break
  sleep 0.1
done
listening "$NGINX_PORT" || { fail_log "$d/error.log" "$d/nginx.err"; die "nginx did not start"; }

# ------------------------------------------------------------------ proxy
P="$TMP/proxy"
mkdir -p "$P/data" "$P/logs" "$P/filters"
# The starter list, with everything under /soakad/ blocked as a generic rule.
awk '{ print } /^! \*\*\* easylist:easylist\/easylist_general_block.txt \*\*\*/ && !done { print "/soakad/"; done = 1 }' \
  "$REPO/data/default/filters.txt" > "$P/filters/filters.txt"
grep -qx '/soakad/' "$P/filters/filters.txt" || die "could not add the soak rule to the starter list"
verdict=$("$BIN" check --filters "$P/filters/filters.txt" "http://127.0.0.1:1/soakad/1.gif" 2> /dev/null || true)
[[ $verdict =~ [345]00 ]] || die "the soak list does not block /soakad/ (check said: '$verdict')"
pick_port
PROXY_PORT=$PORT
printf '[Vexilo]\nPort=%s\n' "$PROXY_PORT" > "$P/data/vexilo.ini"
spawn vxproxy "$P" "$BIN" run --data "$P/data" --logs "$P/logs" --filters "$P/filters"
PROXY_PID=$SPAWNED
line=""
for _ in $(seq 1 600); do
  line=$(grep -m1 '^vxproxy: listening on ' "$P/vxproxy.out" 2> /dev/null || true)
  [ -n "$line" ] && break
  kill -0 "$PROXY_PID" 2> /dev/null || break
  sleep 0.1
done
[ -n "$line" ] || { fail_log "$P/vxproxy.err" "$P/vxproxy.out"; die "the proxy did not start"; }
[ "$line" = "vxproxy: listening on 127.0.0.1:$PROXY_PORT" ] || die "expected port $PROXY_PORT, got: $line"

# ------------------------------------------------------------------ sampler
SERIES="$OUT/series.tsv"
STOP_FILE="$TMP/stop-sampling"
T0=${EPOCHREALTIME/./}
now_s() { local t=${EPOCHREALTIME/./}; printf '%d.%03d' $(((t - T0) / 1000000)) $(((t - T0) / 1000 % 1000)); }
# One line a second: seconds since T0, VmRSS in KiB, open descriptors, threads.
sample_loop() {
  local n=0 max=$((SECONDS_LOAD + 900)) rss thr fds next now k v _rest
  next=$T0
  printf '# t_s\trss_kib\tfds\tthreads\n' > "$SERIES"
  while [ $n -lt $max ] && [ ! -e "$STOP_FILE" ] && [ -d "/proc/$PROXY_PID" ]; do
    rss=""; thr=""
    while read -r k v _rest; do
      case $k in VmRSS:) rss=$v ;; Threads:) thr=$v ;; esac
    done < "/proc/$PROXY_PID/status" 2> /dev/null || true
    fds=(/proc/"$PROXY_PID"/fd/*)
    [ -n "$rss" ] && [ -n "$thr" ] && printf '%s\t%s\t%s\t%s\n' "$(now_s)" "$rss" "${#fds[@]}" "$thr" >> "$SERIES"
    n=$((n + 1))
    next=$((next + 1000000))
    now=${EPOCHREALTIME/./}
    [ $next -gt "$now" ] && sleep "$(printf '%d.%06d' $(((next - now) / 1000000)) $(((next - now) % 1000000)))"
  done
}
sleep 2  # settle after the start
sample_loop &
SAMPLER=$!
sleep 3  # idle samples before the load

# ------------------------------------------------------------------ load
self_args=(--self-aimed 0)
[ "$SELF_AIMED" = 1 ] && self_args=(--self-aimed "$SELF_AIMED_EVERY")
note "load for $SECONDS_LOAD s through 127.0.0.1:$PROXY_PORT (nginx 127.0.0.1:$NGINX_PORT); results in $OUT"
spawn driver "$TMP" "$DRIVER" --proxy "$PROXY_PORT" --nginx "$NGINX_PORT" --www "$TMP/www" \
  --seconds "$SECONDS_LOAD" --seed "$SEED" --tsv "$OUT/counts.tsv" "${self_args[@]}"
DRIVER_PID=$SPAWNED
L0=""; L1=""; PROXY_DIED=""; shown=0
for _ in $(seq 1 $((SECONDS_LOAD + 300))); do
  # The driver's progress lines, as they come.
  lines=$(wc -l < "$TMP/driver.err" 2> /dev/null || echo 0)
  if [ "$lines" -gt "$shown" ]; then sed -n "$((shown + 1)),${lines}p" "$TMP/driver.err" >&2; shown=$lines; fi
  [ -z "$L0" ] && grep -q '^soak-driver: load started' "$TMP/driver.out" 2> /dev/null && L0=$(now_s)
  [ -z "$L1" ] && grep -q '^soak-driver: load ended' "$TMP/driver.out" 2> /dev/null && L1=$(now_s)
  kill -0 "$PROXY_PID" 2> /dev/null || { PROXY_DIED=$(now_s); break; }
  kill -0 "$DRIVER_PID" 2> /dev/null || break
  sleep 1
done
DRIVER_RC=0
if kill -0 "$DRIVER_PID" 2> /dev/null; then
  # The proxy died, or the driver overran every bound: give it a moment to report.
  for _ in $(seq 1 60); do kill -0 "$DRIVER_PID" 2> /dev/null || break; sleep 1; done
  kill -TERM -- "-$DRIVER_PID" 2> /dev/null || true
fi
wait "$DRIVER_PID" 2> /dev/null || DRIVER_RC=$?
[ -z "$L0" ] && grep -q '^soak-driver: load started' "$TMP/driver.out" 2> /dev/null && L0=$(now_s)
[ -z "$L1" ] && L1=$(now_s)
cat "$TMP/driver.out" "$TMP/driver.err" > "$OUT/driver.txt" 2> /dev/null || true
[ -n "$L0" ] || { fail_log "$TMP/driver.err" "$TMP/driver.out"; die "the load did not start"; }

# ------------------------------------------------------------------ drain
# Until descriptors and threads are back at their idle values for 5 s, or DRAIN_MAX s.
idle_of() { awk -F'\t' -v c="$1" '!/^#/ { print $c; exit }' "$SERIES"; }
IDLE_FDS=$(idle_of 3); IDLE_THR=$(idle_of 4)
back=0
for _ in $(seq 1 "$DRAIN_MAX"); do
  [ -z "$PROXY_DIED" ] && ! kill -0 "$PROXY_PID" 2> /dev/null && PROXY_DIED=$(now_s)
  [ -n "$PROXY_DIED" ] && break
  last=$(tail -n 1 "$SERIES")
  read -r _ _ f t <<< "$last"
  if [ "$f" -le $((IDLE_FDS + 2)) ] && [ "$t" -le $((IDLE_THR + 2)) ]; then back=$((back + 1)); else back=0; fi
  [ $back -ge 5 ] && break
  sleep 1
done
touch "$STOP_FILE"
wait "$SAMPLER" 2> /dev/null || true
SAMPLER=""
[ -z "$PROXY_DIED" ] && ! kill -0 "$PROXY_PID" 2> /dev/null && PROXY_DIED=$(now_s)
tail -n 200 "$P/logs/proxy.log" > "$OUT/proxy.log.tail" 2> /dev/null || true
cp "$P/vxproxy.err" "$OUT/vxproxy.err" 2> /dev/null || true

# ------------------------------------------------------------------ judge
WINDOW=60
[ "$SECONDS_LOAD" -lt 240 ] && WINDOW=$((SECONDS_LOAD / 4))
rev=$(git -C "$REPO" rev-parse --short HEAD 2> /dev/null || echo unknown)
[ -n "$(git -C "$REPO" status --porcelain --untracked-files=no 2> /dev/null || true)" ] && rev+="+changes"
SUMMARY="$OUT/summary.txt"
judge() {
  awk -F'\t' -v l0="$L0" -v l1="$L1" -v w="$WINDOW" '
    /^#/ { next }
    { n++; t[n] = $1; v[2, n] = $2 / 1024; v[3, n] = $3; v[4, n] = $4 }
    END {
      split("rss_MiB fds threads", name, " ")
      rel[2] = 0.05; abs[2] = 4; rel[3] = 0.10; abs[3] = 8; rel[4] = 0.10; abs[4] = 8
      printf "%-8s %8s %8s %8s %9s %9s %9s %9s %6s %5s\n", "series", "start", "peak", "end",
        "min1_peak", "last_peak", "trend", "margin", "flat", "back"
      allflat = 1; allback = 1
      for (c = 2; c <= 4; c++) {
        peak = 0; p1 = 0; p2 = 0; sx = sy = sxx = sxy = m = 0
        for (i = 1; i <= n; i++) {
          x = v[c, i]; if (x > peak) peak = x
          if (t[i] >= l0 && t[i] < l0 + w && x > p1) p1 = x
          if (t[i] > l1 - w && t[i] <= l1 && x > p2) p2 = x
          if (t[i] >= l0 + w && t[i] <= l1) { m++; sx += t[i]; sy += x; sxx += t[i] * t[i]; sxy += t[i] * x }
        }
        slope = (m > 1 && m * sxx - sx * sx > 0) ? (m * sxy - sx * sy) / (m * sxx - sx * sx) : 0
        trend = slope * (l1 - l0 - w)
        margin = p1 * rel[c] + abs[c]
        flat = (p2 <= p1 + margin && trend <= margin) ? "yes" : "NO"
        back = "-"
        if (c > 2) { back = (v[c, n] <= v[c, 1] + 2) ? "yes" : "NO"; if (back == "NO") allback = 0 }
        if (flat == "NO") allflat = 0
        fmt = (c == 2) ? "%-8s %8.1f %8.1f %8.1f %9.1f %9.1f %+9.1f %9.1f %6s %5s\n" \
                       : "%-8s %8d %8d %8d %9d %9d %+9.1f %9.1f %6s %5s\n"
        printf fmt, name[c - 1], v[c, 1], peak, v[c, n], p1, p2, trend, margin, flat, back
      }
      printf "FLAT=%d BACK=%d SAMPLES=%d\n", allflat, allback, n
    }' "$SERIES"
}
table=$(judge)
FLAT=$(sed -n 's/^FLAT=\([01]\).*/\1/p' <<< "$table")
BACK=$(sed -n 's/.*BACK=\([01]\).*/\1/p' <<< "$table")
totals=$(grep '^soak-driver: total ' "$OUT/driver.txt" || true)
kv() { sed -n "s/.*[[:space:]]$1=\([0-9]*\).*/\1/p" <<< "$totals"; }
FAILED=$(kv failed); HUNG=$(kv hung); LEAKED=$(kv leaked); ABORTED=$(kv aborted)
verdict=PASSED
reasons=()
[ -n "$totals" ] || reasons+=("the driver gave no totals (exit status $DRIVER_RC)")
[ -n "$PROXY_DIED" ] && reasons+=("the proxy died at ${PROXY_DIED} s (see vxproxy.err)")
[ "${FAILED:-0}" -gt 0 ] && reasons+=("$FAILED checked requests failed")
[ "${HUNG:-0}" -gt 0 ] && reasons+=("$HUNG misbehaving cases hung")
[ "${LEAKED:-0}" -gt 0 ] && reasons+=("$LEAKED blocked addresses reached the origin")
[ "${ABORTED:-0}" -gt 0 ] && reasons+=("the load ended early")
[ "$FLAT" = 1 ] || reasons+=("a series is not flat")
[ "$BACK" = 1 ] || reasons+=("descriptors or threads did not come back to idle")
[ ${#reasons[@]} -eq 0 ] || verdict=FAILED

{
  printf '# vxproxy soak %s  rev %s  host=%s cpus=%s load=%s\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$rev" \
    "$(hostname)" "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
  printf '# load %s s (from %s s to %s s of the series), window %s s; self-aimed requests %s; seed %s\n' \
    "$SECONDS_LOAD" "$L0" "$L1" "$WINDOW" "$([ "$SELF_AIMED" = 1 ] && echo "every ~${SELF_AIMED_EVERY} s" || echo off)" "$SEED"
  printf '# proxy %s run, 127.0.0.1:%s; nginx %s on 127.0.0.1:%s\n\n' "$BIN" "$PROXY_PORT" \
    "$( (nginx -v 2>&1 || true) | sed 's/.*nginx\///')" "$NGINX_PORT"
  printf 'proxy resident memory, descriptors and threads, sampled every second\n'
  printf '(start: idle before the load; end: after the load and the drain; min1/last: the\n'
  printf ' peaks of the load'"'"'s first and last window; trend: least-squares growth over the\n'
  printf ' load after its first window; back: end within 2 of start)\n'
  grep -v '^FLAT=' <<< "$table"
  printf '\n'
  sed -n '/^requests by kind/,$p' "$OUT/driver.txt" | grep -v '^soak-driver:' || true
  printf '\nverdict: %s\n' "$verdict"
  for r in "${reasons[@]}"; do printf '  - %s\n' "$r"; done
} > "$SUMMARY"

# ------------------------------------------------------------------ plot
term=png
gnuplot -e 'set terminal' 2>&1 | grep -q pngcairo && term="pngcairo"
if gnuplot > "$TMP/gnuplot.err" 2>&1 <<EOF
set terminal $term size 1100,900
set output "$OUT/soak.png"
set datafile separator "\t"
set multiplot layout 3,1 title "vxproxy soak, rev $rev: $SECONDS_LOAD s of load ($verdict)"
set grid
set key off
set xlabel "minutes (dashed: start and end of the load)"
set arrow 1 from $L0/60.0, graph 0 to $L0/60.0, graph 1 nohead dashtype 2
set arrow 2 from $L1/60.0, graph 0 to $L1/60.0, graph 1 nohead dashtype 2
set ylabel "resident memory (MiB)"
plot "$SERIES" using (\$1/60):(\$2/1024) with lines linewidth 2
set ylabel "open descriptors"
plot "$SERIES" using (\$1/60):3 with lines linewidth 2
set ylabel "threads"
plot "$SERIES" using (\$1/60):4 with lines linewidth 2
unset multiplot
EOF
then
  :
else
  note "gnuplot failed: $(head -c 300 "$TMP/gnuplot.err")"
fi

cat "$SUMMARY"
note "results in $OUT (summary.txt, soak.png, series.tsv, counts.tsv, driver.txt)"
[ "$verdict" = PASSED ]
