#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the demo need. Idempotent:
# a second run finds everything in place and changes nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  libfuzzer-14-dev
  libxml2-dev libboost-regex-dev libplist-dev libssl-dev libarchive-dev libbz2-dev
  libdivsufsort-dev libsqlite3-dev sqlite3 zlib1g-dev libdeflate-dev qt6-base-dev gettext
  libgtest-dev libgmock-dev
  xvfb xdotool x11-apps netpbm e2fsprogs bsdiff cpio util-linux dpkg procps rsync bc python3
  strace openssl tmux pkexec polkitd dbus-bin dbus-daemon dbus-system-bus-common
  debhelper lintian scdoc bash-completion man-db
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
echo "install-deps: installed ${missing[*]}"
