#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (ASan + UBSan) into
# build/fuzz and runs each for a while on its seed corpus, two at a time.
# Fails on any crash, leak, sanitizer report, broken property or time-out.
#
#   scripts/fuzz.sh [SECONDS] [TARGET ...]
#
# SECONDS per target (default 30, or $VX_FUZZ_SECONDS); TARGETs by name
# (request_header, filter_differential, ...; default all). $VX_FUZZ_JOBS
# targets run at once (default 2). Inputs found to add coverage stay in
# build/fuzz/corpus/<target>, so later runs start from them; findings land
# in build/fuzz/crashes/<target>/, the output of each run in
# build/fuzz/logs/<target>.log.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${VX_FUZZ_SECONDS:-30}"
if [ $# -gt 0 ] && [[ "$1" =~ ^[0-9]+$ ]]; then
  seconds="$1"
  shift
fi
jobs="${VX_FUZZ_JOBS:-2}"
all=(request_header response_header request_target chunk_framing filter_check
  filter_differential xml_store ini_profile log_printf)
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=("${all[@]}")

"$root/scripts/deps.sh" clang-14 libclang-rt-14-dev

build="$root/build/fuzz"
start=$(date +%s)
cmake -S "$root/fuzz" -B "$build" -G Ninja \
  -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"
echo "fuzz: built in $(($(date +%s) - start)) s"

dict_of() {
  case "$1" in
    request_header | response_header | request_target) echo "$root/fuzz/dict/http.dict" ;;
    filter_check | filter_differential) echo "$root/fuzz/dict/filter.dict" ;;
    chunk_framing) echo "$root/fuzz/dict/chunk.dict" ;;
  esac
}

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# One target: its own scratch folder, the working corpus first (new inputs
# are written there), the seeds second.
run_one() {
  local name="$1"
  local corpus="$build/corpus/$name" crashes="$build/crashes/$name" scratch="$build/tmp/$name"
  local log="$build/logs/$name.log"
  mkdir -p "$corpus" "$crashes" "$scratch" "$build/logs"
  local args=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1
    -artifact_prefix="$crashes/")
  local dict
  dict="$(dict_of "$name")"
  [ -n "$dict" ] && args+=(-dict="$dict")
  local rc=0
  TMPDIR="$scratch" nice -n 10 "$build/fuzz_$name" "${args[@]}" "$corpus" "$root/fuzz/corpus/$name" \
    >"$log" 2>&1 || rc=$?
  rm -rf "$scratch"
  # A report that did not stop the run fails it all the same.
  if [ "$rc" -eq 0 ] && grep -qE "ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|property failed" "$log"; then
    rc=1
  fi
  local runs
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
  if [ "$rc" -eq 0 ]; then
    printf 'fuzz: %-20s ok      %10s runs in %s s\n' "$name" "${runs:-?}" "$seconds"
  else
    printf 'fuzz: %-20s FAILED  (exit %s), see %s and %s\n' "$name" "$rc" "$log" "$crashes"
    grep -E "ERROR:|runtime error:|property failed|SUMMARY:|Test unit written" "$log" | head -20 | sed 's/^/    /'
  fi
  return "$rc"
}

failed=0
running=0
for name in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
  run_one "$name" &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
echo "fuzz: done in $(($(date +%s) - start)) s"
if [ "$failed" -ne 0 ]; then
  echo "fuzz: FAILED" >&2
  exit 1
fi
