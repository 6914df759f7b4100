#!/usr/bin/env bash
# Fuzzes the file-versioning library for a bounded time.
#
#   scripts/fuzz-versioner.sh [seconds]      (default 60)
#
# Builds FileVersionerFuzz with the fuzz preset (clang, libFuzzer, ASan, UBSan), copies the
# committed seed corpus into a scratch folder under build/fuzz so the committed one stays as it
# is, and runs the fuzzer for the given time. Exits non-zero when the build fails or the fuzzer
# finds a crash, a leak, a time-out or undefined behaviour; the crashing input is left in
# build/fuzz/versioner-artifacts/.
set -euo pipefail

seconds="${1:-60}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: $0 [seconds]" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target FileVersionerFuzz -j "$(nproc)"

build="$root/build/fuzz"
fuzzer="$build/OrvelFileVersioner/FileVersionerFuzz"
corpus="$build/versioner-corpus"
artifacts="$build/versioner-artifacts"
scratch="$build/versioner-tmp"

rm -rf "$corpus" "$scratch"
mkdir -p "$corpus" "$artifacts" "$scratch"
cp "$root/OrvelFileVersioner/fuzz/corpus/"* "$corpus/"

echo "fuzz-versioner: running FileVersionerFuzz for ${seconds}s on $(ls "$corpus" | wc -l) seeds"
status=0
# The fuzzer writes its sample files under TMPDIR; keep them inside the build folder.
TMPDIR="$scratch" \
  ASAN_OPTIONS="abort_on_error=1:detect_leaks=1" \
  UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
  "$fuzzer" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
  -max_len=12288 -print_final_stats=1 -artifact_prefix="$artifacts/" \
  "$corpus" || status=$?
rm -rf "$scratch"

if [ "$status" -ne 0 ]; then
  echo "fuzz-versioner: FAILED (exit $status); inputs in $artifacts" >&2
  exit 1
fi
echo "fuzz-versioner: no crash in ${seconds}s"
