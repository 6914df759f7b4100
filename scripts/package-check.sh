#!/usr/bin/env bash
# Installs the packages of build/packages (scripts/package.sh) with dpkg -i into a throw-away
# root, an overlay over / in a private mount namespace whose changes vanish with it, and
# there, from the installed programs only:
#   - runs the demo (scripts/demo.sh --installed);
#   - makes a patcher for a small change and checks that it is under 3 MB;
#   - checks that each installed man page renders without warnings and that the bash
#     completions load;
#   - checks that the template's program carries no debug sections, and the debug package has them.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

if [ "${1:-}" != "--inside" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "package-check: needs root (mount namespace, chroot)" >&2; exit 1; }
  compgen -G "build/packages/*.deb" >/dev/null ||
    { echo "package-check: no packages in build/packages; run scripts/package.sh" >&2; exit 1; }
  exec unshare --mount --propagation private bash "$0" --inside
fi

# In the namespace: the throw-away root.
scratch=$(mktemp -d /tmp/orvel-root.XXXXXX)
mount -t tmpfs -o mode=0700 tmpfs "$scratch"
mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$scratch/upper,workdir=$scratch/work" "$scratch/root"
root=$scratch/root
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount --rbind /sys "$root/sys"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mkdir -p "$root$top"
mount --bind "$top" "$root$top"
in_root() { chroot "$root" env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  HOME=/root LANG=C.UTF-8 "$@"; }

echo "==> dpkg -i into the throw-away root"
# Packages of an earlier install on the machine itself are shadowed here, not touched.
in_root dpkg -i "$top"/build/packages/*.deb
in_root dpkg -l 'orvel-*' | grep '^ii'

echo "==> what the packages put in place"
template=$(in_root dpkg -L orvel-patcher-template | grep '/PatcherApp.app/Contents/MacOS/PatcherApp$')
echo "the patcher template: ${template%/Contents/MacOS/PatcherApp}"
if in_root readelf -S "$template" | grep -q '\.debug_info'; then
  echo "package-check: the template's PatcherApp has debug sections" >&2
  exit 1
fi
build_id=$(in_root readelf -n "$template" | awk '/Build ID/ {print $3}')
debug_file=/usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug
in_root readelf -S "$debug_file" 2>/dev/null | grep -q '\.debug_info' ||
  { echo "package-check: no debug information for PatcherApp at $debug_file" >&2; exit 1; }
echo "its debug information: $debug_file (orvel-patcher-template-dbgsym)"
for program in mkpatcher zothctl kor-launch orvel-bspatch; do
  in_root "$program" --version
done
for page in PatcherApp.1 mkpatcher.1 kor-launch.1 orvel-bspatch.1 zothctl.8 \
  orvel-patcher-config.5 orvel-patcher-manifest.5; do
  file=$(in_root man -w "${page%.*}" 2>/dev/null || true)
  [ -n "$file" ] || { echo "package-check: man page $page is not installed" >&2; exit 1; }
  warnings=$(in_root env MANWIDTH=80 man --warnings -l "$file" 2>&1 >/dev/null || true)
  [ -z "$warnings" ] || { echo "package-check: $page: $warnings" >&2; exit 1; }
done
echo "man pages: 7 installed, rendered without warnings"
in_root bash -c 'source /usr/share/bash-completion/bash_completion
  for command in mkpatcher zothctl; do
    _completion_loader "$command"
    complete -p "$command" >/dev/null || exit 1
  done' || { echo "package-check: the bash completions do not load" >&2; exit 1; }
echo "bash completion: mkpatcher and zothctl"
in_root test -f /usr/share/polkit-1/actions/org.orvel.patcher.policy
in_root test -x /usr/libexec/orvel-patcher/orvel-run-patcher
echo "polkit action: org.orvel.patcher.update, launcher /usr/libexec/orvel-patcher/orvel-run-patcher"

echo "==> a patcher for a small change, from the installed mkpatcher"
small=/tmp/small-change
in_root bash -euc '
  small=$1
  for version in 1.0 1.1; do
    app=$small/v$version/Notes.app
    mkdir -p "$app/Contents/MacOS" "$app/Contents/Resources"
    printf "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.orvel.notes</string><key>CFBundleVersion</key><string>%s</string></dict></plist>\n" "$version" >"$app/Contents/Info.plist"
    head -c 200000 /usr/bin/bash >"$app/Contents/MacOS/Notes"
    seq 1 2000 >"$app/Contents/Resources/notes.txt"
  done
  head -c 332 /dev/urandom >>"$small/v1.1/Notes.app/Contents/Resources/notes.txt"
  mkpatcher create --old "$small/v1.0/Notes.app" --new "$small/v1.1/Notes.app" \
    --out "$small/NotesUpdate.app" --code "{0DE30DE3-0000-4000-8000-0000000000E2}" >/dev/null
' _ "$small"
size=$(in_root du -sb "$small/NotesUpdate.app" | cut -f1)
echo "the patcher for a 332-byte change: $size bytes"
[ "$size" -lt 3000000 ] || { echo "package-check: the small patcher is 3 MB or more" >&2; exit 1; }

echo "==> the demo, from the installed programs"
in_root env DEMO_DIR=/tmp/demo bash "$top/scripts/demo.sh" --installed
