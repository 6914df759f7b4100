#!/usr/bin/env bash
# Fuzzes the readers of the configuration, the manifest and the undo journal for a bounded time.
#
#   scripts/fuzz-readers.sh [seconds]      (default 60, for each reader)
#
# Builds ConfigReaderFuzz, ManifestReaderFuzz and JournalReaderFuzz with the fuzz preset (clang,
# libFuzzer, ASan, UBSan), copies each committed seed corpus into a scratch folder under
# build/fuzz so the committed ones stay as they are, and runs each fuzzer for the given time,
# two at a time. Exits non-zero when the build fails or a fuzzer finds a crash, a leak, a
# time-out, undefined behaviour or a broken promise of a reader; the input is left in
# build/fuzz/<reader>-artifacts/ and the fuzzer's output in build/fuzz/<reader>.log.
set -euo pipefail

seconds="${1:-60}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: $0 [seconds]" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

readers=(config manifest journal)
declare -A fuzzers=(
  [config]=src/target/ConfigReaderFuzz
  [manifest]=src/update/ManifestReaderFuzz
  [journal]=src/update/JournalReaderFuzz
)
declare -A seeds=(
  [config]=src/target/fuzz/corpus/config
  [manifest]=src/update/fuzz/corpus/manifest
  [journal]=src/update/fuzz/corpus/journal
)
# Two fuzzers at a time: one per core of a small machine.
slots=2

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" \
  --target ConfigReaderFuzz ManifestReaderFuzz JournalReaderFuzz

build="$root/build/fuzz"

# Starts one fuzzer in the background; its output goes to build/fuzz/<reader>.log.
start() {
  local reader=$1
  local corpus="$build/$reader-corpus" artifacts="$build/$reader-artifacts"
  local scratch="$build/$reader-tmp"
  rm -rf "$corpus" "$scratch"
  mkdir -p "$corpus" "$artifacts" "$scratch"
  cp "$root/${seeds[$reader]}/"* "$corpus/"
  echo "fuzz-readers: running ${fuzzers[$reader]##*/} for ${seconds}s on $(find "$corpus" -type f | wc -l) seeds"
  # The readers log to standard error at the debug level, so that fuzzed values go through
  # the log's formatting as well; -close_fd_mask=2 sends that away and keeps libFuzzer's own
  # output and the sanitizers' reports. Inputs stay within 64 KB: a document whose DTD
  # references one entity many times expands quadratically (a 128 KB one into a gigabyte).
  # The config and manifest fuzzers write their input file under TMPDIR.
  TMPDIR="$scratch" \
    ASAN_OPTIONS="abort_on_error=1:detect_leaks=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    "$build/${fuzzers[$reader]}" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
    -max_len=65536 -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$artifacts/" \
    "$corpus" >"$build/$reader.log" 2>&1 &
  running[$!]=$reader
}

# What one run did, from its log: executions, coverage, corpus size.
summary() {
  local log=$1
  local runs cov
  runs=$(grep -oE 'stat::number_of_executed_units: [0-9]+' "$log" | grep -oE '[0-9]+$' || true)
  cov=$(grep -E '^#[0-9]+' "$log" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+' ||
    true)
  echo "${runs:-?} runs, ${cov:-no coverage line}"
}

declare -A running=() # process id -> reader
failed=()
# Fuzzers still running when this script ends early (an error, a signal) are stopped.
trap 'for pid in "${!running[@]}"; do kill "$pid" 2>/dev/null || true; done' EXIT
# Waits for one of the running fuzzers and reports it.
finish_one() {
  local pid="" rc=0
  wait -n -p pid "${!running[@]}" || rc=$?
  local reader=${running[$pid]}
  unset "running[$pid]"
  rm -rf "$build/$reader-tmp"
  if [ "$rc" -eq 0 ]; then
    echo "fuzz-readers: $reader: no finding in ${seconds}s ($(summary "$build/$reader.log"))"
  else
    echo "fuzz-readers: $reader: FAILED (exit $rc); output in $build/$reader.log," \
      "inputs in $build/$reader-artifacts" >&2
    tail -n 40 "$build/$reader.log" >&2
    failed+=("$reader")
  fi
}

for reader in "${readers[@]}"; do
  if [ "${#running[@]}" -ge "$slots" ]; then
    finish_one
  fi
  start "$reader"
done
while [ "${#running[@]}" -gt 0 ]; do
  finish_one
done

if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz-readers: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz-readers: no finding in ${seconds}s for each of ${readers[*]}"
