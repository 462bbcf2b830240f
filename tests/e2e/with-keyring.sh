#!/bin/sh
# Runs a test program in a D-Bus session of its own, with a gnome-keyring daemon
# whose login keyring is made and unlocked for it. Exits 77 (skipped) when the
# session bus or the daemon cannot be had.
set -u
if ! command -v dbus-run-session >/dev/null 2>&1; then
  echo "skipped: dbus-run-session is not installed (Debian package dbus)"
  exit 77
fi
if ! command -v gnome-keyring-daemon >/dev/null 2>&1; then
  echo "skipped: gnome-keyring-daemon is not installed (Debian package gnome-keyring)"
  exit 77
fi
keyring_home=$(mktemp -d "${TMPDIR:-/tmp}/cv-keyring-XXXXXX") || exit 1
trap 'rm -rf "$keyring_home"' EXIT
mkdir -m 700 "$keyring_home/run"
HOME="$keyring_home" XDG_DATA_HOME="$keyring_home/data" XDG_RUNTIME_DIR="$keyring_home/run" \
  dbus-run-session -- sh -c '
    # The daemon makes the login keyring with this password and leaves it unlocked;
    # with CORVALINK_KEYRING_LOCKED there is none, and the first store asks for one.
    if [ -n "${CORVALINK_KEYRING_LOCKED:-}" ]; then
      gnome-keyring-daemon --start --components=secrets >/dev/null
    else
      printf "test-keyring" | gnome-keyring-daemon --unlock --components=secrets >/dev/null
    fi
    if [ $? -ne 0 ]; then
      echo "skipped: gnome-keyring-daemon did not start"
      exit 77
    fi
    exec "$@"' keyring-session "$@"
