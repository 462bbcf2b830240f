#!/usr/bin/env bash
# Installs the Debian packages that the client, its tests and its local server
# need. Safe to run again: it installs only what is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache
  libxml2-dev zlib1g-dev libminizip-dev libcurl4-openssl-dev libssl-dev uuid-dev
  libutf8proc-dev libcpp-httplib-dev libsecret-1-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  openssl xxd
  qt6-base-dev qt6-svg-dev qt6-qpa-plugins libqt6svg6
  xvfb xauth dbus dbus-x11 at-spi2-core desktop-file-utils appstream
  gnome-keyring libsecret-tools
  libnautilus-extension-dev
  libkf5kio-dev libkf5coreaddons-dev qtbase5-dev
  nautilus bubblewrap openbox xdotool
  clang libclang-rt-dev
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages are installed"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
