#!/usr/bin/env bash
# Fuzzes the file-versioning library, the readers of the configuration, the manifest and the
# undo journal, and the bzip2 decoder of the patches for a bounded time.
#
#   scripts/fuzz.sh [seconds]      (default 60, for each fuzzer)
#
# Builds FileVersionerFuzz, ConfigReaderFuzz, ManifestReaderFuzz, JournalReaderFuzz and
# Bzip2DecoderFuzz (our bzip2 decoder against libbz2) with the
# fuzz preset (clang, libFuzzer, ASan, UBSan), copies each committed seed corpus into a scratch
# folder under build/fuzz so the committed ones stay as they are, and runs each fuzzer for the
# given time, two at a time. Exits non-zero when the build fails or a fuzzer finds a crash, a
# leak, a time-out, undefined behaviour or a broken promise of what it fuzzes; the input is
# left in build/fuzz/<name>-artifacts/ and the fuzzer's output in build/fuzz/<name>.log.
set -euo pipefail

seconds="${1:-60}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: $0 [seconds]" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

names=(versioner config manifest journal bzip2)
declare -A fuzzers=(
  [versioner]=OrvelFileVersioner/FileVersionerFuzz
  [config]=src/target/ConfigReaderFuzz
  [manifest]=src/update/ManifestReaderFuzz
  [journal]=src/update/JournalReaderFuzz
  [bzip2]=src/patch/Bzip2DecoderFuzz
)
declare -A seeds=(
  [versioner]=OrvelFileVersioner/fuzz/corpus
  [config]=src/target/fuzz/corpus/config
  [manifest]=src/update/fuzz/corpus/manifest
  [journal]=src/update/fuzz/corpus/journal
  [bzip2]=src/patch/fuzz/corpus/bzip2
)
# The readers log to standard error at the debug level, so that fuzzed values go through the
# log's formatting as well; -close_fd_mask=2 sends that away and keeps libFuzzer's own output
# and the sanitizers' reports. Reader inputs stay within 64 KB: a document whose DTD references
# one entity many times expands quadratically (a 128 KB one into a gigabyte).
declare -A options=(
  [versioner]="-max_len=12288"
  [config]="-max_len=65536 -close_fd_mask=2"
  [manifest]="-max_len=65536 -close_fd_mask=2"
  [journal]="-max_len=65536 -close_fd_mask=2"
  [bzip2]="-max_len=65536"
)
# Two fuzzers at a time: one per core of a small machine.
slots=2

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" \
  --target FileVersionerFuzz ConfigReaderFuzz ManifestReaderFuzz JournalReaderFuzz \
  Bzip2DecoderFuzz

build="$root/build/fuzz"

# Starts one fuzzer in the background; its output goes to build/fuzz/<name>.log.
start() {
  local name=$1
  local corpus="$build/$name-corpus" artifacts="$build/$name-artifacts"
  local scratch="$build/$name-tmp"
  rm -rf "$corpus" "$scratch"
  mkdir -p "$corpus" "$artifacts" "$scratch"
  cp "$root/${seeds[$name]}/"* "$corpus/"
  echo "fuzz: running ${fuzzers[$name]##*/} for ${seconds}s on $(find "$corpus" -type f | wc -l) seeds"
  local extra
  read -ra extra <<<"${options[$name]}"
  # The fuzzers write their input or sample files under TMPDIR.
  TMPDIR="$scratch" \
    ASAN_OPTIONS="abort_on_error=1:detect_leaks=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    "$build/${fuzzers[$name]}" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
    "${extra[@]}" -print_final_stats=1 -artifact_prefix="$artifacts/" \
    "$corpus" >"$build/$name.log" 2>&1 &
  running[$!]=$name
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

declare -A running=() # process id -> fuzzer name
failed=()
# Fuzzers still running when this script ends early (an error, a signal) are stopped.
trap 'for pid in "${!running[@]}"; do kill "$pid" 2>/dev/null || true; done' EXIT
# Waits for one of the running fuzzers and reports it.
finish_one() {
  local pid="" rc=0
  wait -n -p pid "${!running[@]}" || rc=$?
  local name=${running[$pid]}
  unset "running[$pid]"
  rm -rf "$build/$name-tmp"
  if [ "$rc" -eq 0 ]; then
    echo "fuzz: $name: no finding in ${seconds}s ($(summary "$build/$name.log"))"
  else
    echo "fuzz: $name: FAILED (exit $rc); output in $build/$name.log," \
      "inputs in $build/$name-artifacts" >&2
    tail -n 40 "$build/$name.log" >&2
    failed+=("$name")
  fi
}

for name in "${names[@]}"; do
  if [ "${#running[@]}" -ge "$slots" ]; then
    finish_one
  fi
  start "$name"
done
while [ "${#running[@]}" -gt 0 ]; do
  finish_one
done

if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: no finding in ${seconds}s for each of ${names[*]}"
