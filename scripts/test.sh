#!/usr/bin/env bash
# Installs what the project needs, builds the normal and the sanitizer presets, and runs
# every test through CTest, then the bounded fuzz run. Exits non-zero when anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
status=0
summary=()

step() {
  local name=$1
  shift
  echo "==> $name"
  if "$@"; then
    summary+=("PASS  $name")
  else
    summary+=("FAIL  $name")
    status=1
  fi
}

bash scripts/install-deps.sh || exit 1

for preset in default asan; do
  step "configure $preset" cmake --preset "$preset"
  step "build $preset" cmake --build --preset "$preset" -j "$jobs"
done

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
for preset in default asan; do
  echo "==> test $preset"
  ctest --preset "$preset" -j "$jobs" --output-on-failure --timeout 600 \
    | tee "build/ctest-$preset.log" | grep -vE '^ +Start |^[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed'
  if [ "${PIPESTATUS[0]}" -eq 0 ]; then
    summary+=("PASS  test $preset: $(grep -E 'tests passed' "build/ctest-$preset.log")")
  else
    summary+=("FAIL  test $preset: $(grep -E 'tests passed|tests failed' "build/ctest-$preset.log")")
    status=1
  fi
done

# The README's first command, so that it keeps working.
step "demo: the patcher's main job end to end" bash scripts/demo.sh
# The Debian packages: built with debhelper, lintian-clean, installed into a throw-away root
# where the demo runs again from the installed programs.
step "packages: build and lintian" bash scripts/package.sh
step "packages: dpkg -i into a throw-away root, demo from the installed programs" \
  bash scripts/package-check.sh

if [ -x scripts/fuzz.sh ]; then
  step "fuzz versioner and readers (60 s each)" scripts/fuzz.sh 60
fi

echo
echo "==> summary"
printf '%s\n' "${summary[@]}"
exit $status
