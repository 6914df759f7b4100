#!/usr/bin/env bash
# Builds the patcher and runs PatcherApp once, as a user would start it, then shows where
# its log went and what this run wrote to it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" >/dev/null

app=build/default/PatcherApp.app/Contents/MacOS/PatcherApp
log="${HOME}/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log"
before=0
[ -f "$log" ] && before=$(wc -l <"$log")

echo "==> running $app"
set +e
"$app"
code=$?
set -e
echo "PatcherApp exited with status $code"
echo "==> log: $log"
tail -n "+$((before + 1))" "$log"
