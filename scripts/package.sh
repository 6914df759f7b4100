#!/usr/bin/env bash
# Builds the Debian packages from this tree with debhelper (dpkg-buildpackage) into
# build/packages/ and checks them with lintian. The tree is copied first, so the build
# leaves the checkout as it was.
#   scripts/package.sh            build and check
#   scripts/package.sh --no-lint  build only
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
lint=yes
[ "${1:-}" = "--no-lint" ] && lint=no

bash scripts/install-deps.sh

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
out=$top/build/packages
work=$out/source/orvel-patcher-$version
rm -rf "$out"
mkdir -p "$work"

echo "==> copying the tree to $work"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  # What git tracks, and new files it would track.
  git ls-files -z --cached --others --exclude-standard | rsync -a --from0 --files-from=- ./ "$work/"
else
  rsync -a --exclude=/build/ --exclude=/.git/ --exclude=/Testing/ ./ "$work/"
fi

echo "==> dpkg-buildpackage"
start=$(date +%s)
(cd "$work" && DEB_BUILD_OPTIONS="parallel=$(nproc 2>/dev/null || echo 2)" \
  dpkg-buildpackage --build=binary --unsigned-source --unsigned-changes >"$out/build.log" 2>&1) || {
  tail -n 60 "$out/build.log"
  echo "package: dpkg-buildpackage failed; the whole log is $out/build.log" >&2
  exit 1
}
mv "$out"/source/*.deb "$out"/source/*.ddeb "$out/" 2>/dev/null || true
mv "$out"/source/*.changes "$out"/source/*.buildinfo "$out/" 2>/dev/null || true
echo "built in $(($(date +%s) - start)) s:"
for deb in "$out"/*.deb "$out"/*.ddeb; do
  [ -e "$deb" ] || continue
  printf '  %-60s %8s bytes\n' "$(basename "$deb")" "$(stat -c %s "$deb")"
done

if [ "$lint" = yes ]; then
  echo "==> lintian"
  # Warnings fail as errors do; each accepted tag is overridden in debian/*.lintian-overrides
  # with its reason.
  lintian --fail-on error,warning --display-info --tag-display-limit 0 "$out"/*.deb
  echo "lintian: no errors or warnings"
fi
