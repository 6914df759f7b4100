#!/usr/bin/env bash
# Pictures of the patcher's windows: builds what is missing, then runs the user-interface
# end-to-end tests with the real PatcherApp on an Xvfb display inside a private mount
# namespace (the machine's /opt, /var/opt, /tmp, /run, /home... are never touched), and
# saves one PNG per window under build/default/screenshots/:
#   1-welcome  2-progress  3-running-applications  4-cancel-question  5-success
#   6-cancelled  untrusted-update  administrator-refused (each also in German, de-...)
# Needs the super-user (mount namespaces) and the packages of scripts/install-deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
  echo "screenshots: run as root (the windows are shown in a private mount namespace)" >&2
  exit 1
fi

bash scripts/install-deps.sh
echo "==> building"
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" --target e2e_tests >/dev/null

out=$top/build/default/screenshots
rm -rf "$out"
mkdir -p "$out"

echo "==> showing the windows on Xvfb"
ORVEL_E2E_SCREENSHOTS=$out "$top/build/default/tests/e2e/e2e_tests" \
  --gtest_filter='UserInterface.*' --gtest_brief=1

echo "==> saved in $out"
missing=0
for name in 1-welcome 2-progress 3-running-applications 4-cancel-question 5-success \
  6-cancelled; do
  if [ -s "$out/$name.png" ]; then
    echo "    $name.png"
  else
    echo "    $name.png is missing" >&2
    missing=1
  fi
done
exit "$missing"
