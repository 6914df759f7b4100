#!/usr/bin/env bash
# The patcher's main job on a demo application: builds everything, makes version 1.0 and
# 1.1 of an editor, installs 1.0 under /opt/Orvel/Suite in a private mount namespace (the
# machine's own /opt, /var/opt and /tmp/OrvelQX3 are never touched), registers it in the
# installation database, makes a patcher with mkpatcher, signs it with a new vendor key that
# the namespace's /etc/orvel trusts, and runs it silently, twice.
#   scripts/demo.sh              with the programs of build/default (built first)
#   scripts/demo.sh --installed  with the installed programs (mkpatcher and zothctl on the
#                                PATH, the patcher template they find), nothing built
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

if [ "${1:-}" = "--installed" ]; then
  mkpatcher=$(command -v mkpatcher) || { echo "demo: no mkpatcher on the PATH" >&2; exit 1; }
  zothctl=$(PATH=$PATH:/usr/sbin:/usr/local/sbin command -v zothctl) ||
    { echo "demo: no zothctl on the PATH" >&2; exit 1; }
  demo=${DEMO_DIR:-$top/build/demo-installed}
  echo "==> the installed programs: $mkpatcher, $zothctl"
else
  bash scripts/install-deps.sh
  echo "==> building"
  cmake --preset default >/dev/null
  cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
  build=$top/build/default
  mkpatcher=$build/tools/mkpatcher/mkpatcher
  zothctl=$build/tools/zoth/zothctl
  demo=$top/build/demo
fi
rm -rf "$demo"
mkdir -p "$demo/v1" "$demo/v2" "$demo/home"

echo "==> making Orvel Editor 1.0 and 1.1"
plist() { # version
  cat <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleExecutable</key><string>Editor</string>
	<key>CFBundleIdentifier</key><string>com.orvel.editor</string>
	<key>CFBundleName</key><string>Orvel Editor</string>
	<key>CFBundleVersion</key><string>$1</string>
</dict>
</plist>
PLIST
}
old=$demo/v1/Editor.app
new=$demo/v2/Editor.app
mkdir -p "$old/Contents/MacOS" "$old/Contents/Resources/docs" "$old/Contents/Resources/en.lproj" \
  "$old/Contents/Resources/de.lproj" "$old/Contents/Frameworks/Legacy"
plist 1.0 >"$old/Contents/Info.plist"
cp /usr/bin/cmake "$old/Contents/MacOS/Editor"
head -c 3000000 /dev/urandom >"$old/Contents/Resources/textures.bin"
for i in $(seq -w 1 300); do
  printf 'Orvel Editor help page %s\n%s\n' "$i" "$(seq -s ' ' 1 $((10#$i % 50 + 20)))" \
    >"$old/Contents/Resources/docs/page$i.txt"
done
printf '"Open" = "Open";\n"Save" = "Save";\n' >"$old/Contents/Resources/en.lproj/Localizable.strings"
printf '"Open" = "Oeffnen";\n"Save" = "Sichern";\n' >"$old/Contents/Resources/de.lproj/Localizable.strings"
printf '#!/bin/sh\necho "editor helper"\n' >"$old/Contents/Resources/helper.sh"
chmod 0644 "$old/Contents/Resources/helper.sh"
ln -s docs/page001.txt "$old/Contents/Resources/start-here.txt"

cp -a "$old" "$new"
plist 1.1 >"$new/Contents/Info.plist"
# The program changes a little: a few bytes in the middle and a new tail.
printf 'ORVEL-EDITOR-1.1' | dd of="$new/Contents/MacOS/Editor" bs=1 seek=400000 conv=notrunc status=none
printf 'build 1.1 of the editor\n' >>"$new/Contents/MacOS/Editor"
for i in $(seq -w 1 10 300); do echo "Revised for 1.1." >>"$new/Contents/Resources/docs/page$i.txt"; done
rm "$new"/Contents/Resources/docs/page29[0-9].txt
for i in $(seq 1 8); do echo "What's new in 1.1, part $i" >"$new/Contents/Resources/docs/new$i.txt"; done
printf '"Open" = "Oeffnen";\n"Save" = "Speichern";\n' >"$new/Contents/Resources/de.lproj/Localizable.strings"
chmod 0755 "$new/Contents/Resources/helper.sh"
ln -sfn docs/new1.txt "$new/Contents/Resources/start-here.txt"
ln -s docs/new1.txt "$new/Contents/Resources/whats-new.txt"
rmdir "$new/Contents/Frameworks/Legacy"
mkdir -p "$new/Contents/PlugIns"

echo "==> making the patcher with mkpatcher create"
code="{0DE30DE3-0000-4000-8000-0000000000E1}"
mkdir -p "$demo/keys"
"$mkpatcher" keygen --private "$demo/keys/vendor.pem" --public "$demo/keys/vendor.pub"
"$mkpatcher" create --old "$old" --new "$new" --out "$demo/EditorUpdate.app" \
  --code "$code" --family "Orvel" --product-name "Orvel Editor" --force \
  --sign-key "$demo/keys/vendor.pem"
echo "==> checking the signature with mkpatcher verify"
"$mkpatcher" verify "$demo/EditorUpdate.app" --key "$demo/keys/vendor.pub" | head -n 6
echo "the patcher bundle: $(du -sk "$demo/EditorUpdate.app" | cut -f1) KB, of which the program $(($(stat -c %s "$demo/EditorUpdate.app/Contents/MacOS/PatcherApp") / 1024)) KB"

# What runs inside the private mount namespace.
cat >"$demo/run-in-namespace.sh" <<'INNER'
set -euo pipefail
# Root's folders, as on a real system (the patcher refuses an /tmp/OrvelQX3 others may write).
for folder in /opt /var/opt /usr/local/share /tmp/OrvelQX3 /etc/orvel; do
  mkdir -p "$folder"
  mount -t tmpfs -o mode=0755 tmpfs "$folder"
done
mkdir -p /etc/orvel/trusted-keys.d
install -m 0644 "$DEMO/keys/vendor.pub" /etc/orvel/trusted-keys.d/vendor.pem
echo "trusted the vendor's public key: /etc/orvel/trusted-keys.d/vendor.pem"
mkdir -p /opt/Orvel/Suite
cp -a "$DEMO/v1/Editor.app" /opt/Orvel/Suite/
"$ZOTHCTL" add --code "$CODE" --installdir /opt/Orvel/Suite --language en --version 1.0 >/dev/null
echo "installed Orvel Editor 1.0 at /opt/Orvel/Suite/Editor.app and registered it as $CODE"

meaning() {
  case "$1" in
    0) echo "update applied successfully" ;;
    3) echo "already up to date" ;;
    5) echo "installed application not found" ;;
    6) echo "installed application not valid for this update" ;;
    7) echo "not enough disk space" ;;
    8) echo "applications of the family still running" ;;
    9) echo "cancelled, or failed and rolled back" ;;
    10) echo "failed, and the rollback failed too" ;;
    11) echo "not signed by a trusted key; nothing was changed" ;;
    12) echo "another patcher kept the machine busy" ;;
    *) echo "unknown" ;;
  esac
}
listing() { (cd "$1" && find . -printf '%P %y %m %l\n' | sort); }

echo "==> first run: PatcherApp -Silent"
start=$(date +%s%N)
status=0
"$DEMO/EditorUpdate.app/Contents/MacOS/PatcherApp" -Silent || status=$?
end=$(date +%s%N)
first=$(cat /tmp/OrvelQX3/retVal)
echo "exit status: $status (a silent run exits with its return code)"
echo "return code: $first ($(meaning "$first")), in $(( (end - start) / 1000000 )) ms"
log=$HOME/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log
echo "signature, as the patcher checked it: $(grep -o 'The update is signed by key.*' "$log" | head -n 1)"
echo "what changed:"
diff -rq --no-dereference "$DEMO/v1/Editor.app" /opt/Orvel/Suite/Editor.app | sed 's/^/  /' | head -n 20 || true
echo "  ($(diff -rq --no-dereference "$DEMO/v1/Editor.app" /opt/Orvel/Suite/Editor.app | wc -l) differences from 1.0 in all)"
if diff -r --no-dereference "$DEMO/v2/Editor.app" /opt/Orvel/Suite/Editor.app >/dev/null &&
   [ "$(listing "$DEMO/v2/Editor.app")" = "$(listing /opt/Orvel/Suite/Editor.app)" ]; then
  echo "check: the installed tree now equals version 1.1 (contents, links and modes)"
else
  echo "check FAILED: the installed tree differs from version 1.1"
  exit 1
fi

echo "==> second run: PatcherApp -Silent"
rm -f /tmp/OrvelQX3/retVal
"$DEMO/EditorUpdate.app/Contents/MacOS/PatcherApp" -Silent || true
second=$(cat /tmp/OrvelQX3/retVal)
echo "return code: $second ($(meaning "$second"))"
[ "$first" = 0 ] && [ "$second" = 3 ]
INNER

echo "==> running the patcher in a private mount namespace"
status=0
DEMO=$demo ZOTHCTL=$zothctl CODE=$code HOME=$demo/home \
  unshare --mount --propagation private bash "$demo/run-in-namespace.sh" || status=$?
echo "log: $demo/home/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log"
exit $status
