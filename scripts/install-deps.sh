#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing Skerrow needs,
# skipping those already installed.  Needs root (or sudo) only when
# something is missing.
#
#   scripts/install-deps.sh            build and test dependencies
#   scripts/install-deps.sh --fuzz     also clang and its fuzzing runtime
#   scripts/install-deps.sh --package  also what building, checking and trying
#                                      the Debian packages needs (scripts/package-test.sh)
set -euo pipefail

packages=(
  g++ cmake ninja-build pkgconf
  libplist-dev libicu-dev uuid-dev libsystemd-dev libglib2.0-dev libmount-dev libblkid-dev
  libsdbus-c++-dev libsdbus-c++-bin dbus-daemon libnss-wrapper systemd
  libcli11-dev nlohmann-json3-dev libfmt-dev libfuse3-dev
  libgtest-dev libbenchmark-dev
  e2fsprogs mount exfatprogs exfat-fuse dosfstools fusefat fuse3
  scdoc zsh
)
for arg in "$@"; do
  case "$arg" in
    --fuzz) packages+=(clang libclang-rt-14-dev) ;;
    --package) packages+=(dpkg-dev debhelper fakeroot lintian ccache git man-db util-linux python3-seccomp gcc) ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Run as root (or install sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
