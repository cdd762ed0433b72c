#!/bin/sh
# Runs every fuzz target (or those named after the options) for SECONDS each.
#   scripts/fuzz.sh BUILD_DIR SECONDS [target...]
# The working corpus of each target lives in BUILD_DIR/corpus/<target> and
# grows from run to run; seeds come from fuzz/seeds and the test data. A crash,
# leak or hang fails the run and leaves its input in BUILD_DIR/artifacts.
# One line per target (executions, corpus entries and bytes) goes to
# BUILD_DIR/fuzz-report.txt.
set -u
cd "$(dirname "$0")/.."
build=$1
seconds=$2
shift 2
targets=${*:-"json ipc_request dbc ldf asc blf image cli_parsers isotp"}
data=tests/data

seeds_for() {
  case $1 in
    json) echo "$data/interop" ;;  # the expected-output documents are JSON
    dbc) echo "$data/dbc" ;;
    ldf) echo "$data/ldf" ;;
    asc) echo "$data/interop" ;;
    blf) echo "$data/interop" ;;
    *) echo "" ;;
  esac
}

# Inputs larger than this are cut: whole DBC files of a car are big, and
# line-based inputs find nothing more in long files than in short ones.
max_len_for() {
  case $1 in
    blf) echo 32768 ;;
    json) echo 16384 ;;
    dbc | ldf) echo 8192 ;;
    *) echo 4096 ;;
  esac
}

seed_dirs() {
  for d in "fuzz/seeds/$1" $(seeds_for "$1"); do
    [ -d "$d" ] && echo "$d"
  done
}

mkdir -p "$build/artifacts"
report="$build/fuzz-report.txt"
: > "$report"
status=0
for t in $targets; do
  bin="$build/bin/fuzz_$t"
  if [ ! -x "$bin" ]; then
    echo "fuzz: $bin is missing" >&2
    status=1
    continue
  fi
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  log="$build/fuzz_$t.log"
  # Seeds are read only; new inputs go into the working corpus. Hangs count
  # as failures (-timeout), and so does any leak.
  # shellcheck disable=SC2046
  "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len="$(max_len_for "$t")" -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t-" \
    "$corpus" $(seed_dirs "$t") >"$log" 2>&1
  rc=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  entries=$(find "$corpus" -type f | wc -l)
  bytes=$(du -sb "$corpus" | cut -f1)
  line="fuzz_$t: ${runs:-?} executions in ${seconds}s, corpus $entries files / $bytes bytes"
  if [ $rc -ne 0 ]; then
    line="$line: FAILED (exit $rc, see $log)"
    status=1
    grep -E "ERROR|SUMMARY|runtime error|Test unit written" "$log" | head -5 >&2
  fi
  echo "$line" | tee -a "$report"
done
exit $status
