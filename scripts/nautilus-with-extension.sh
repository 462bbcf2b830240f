#!/bin/sh
# Runs GNOME Files with the extensions of one folder instead of the system's
# (GNOME Files loads them only from the folder it was built with): bubblewrap
# binds that folder over the system's one for this process alone, so nothing on
# the machine changes. For the desktop suite and the demo. Exits 77 (skipped)
# when GNOME Files or bubblewrap is missing or may not make its namespace.
#   nautilus-with-extension.sh EXTENSIONS_FOLDER SYSTEM_EXTENSIONS_FOLDER [NAUTILUS ARGUMENTS]
set -u
extensions=$1
system=$2
shift 2
for tool in nautilus bwrap; do
  if ! command -v $tool >/dev/null 2>&1; then
    echo "skipped: $tool is not installed (Debian packages nautilus, bubblewrap)" >&2
    exit 77
  fi
done
if ! bwrap --dev-bind / / true 2>/dev/null; then
  echo "skipped: bubblewrap may not make a namespace here (unprivileged user namespaces are off)" >&2
  exit 77
fi
# Settings in memory, not in the user's dconf; files through GIO's local access
# alone.
export GSETTINGS_BACKEND=memory GIO_USE_VFS=local
# GNOME Files ends with this script (the suite ends it so).
exec bwrap --die-with-parent --dev-bind / / --ro-bind "$extensions" "$system" -- nautilus "$@"
