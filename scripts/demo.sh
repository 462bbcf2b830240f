#!/usr/bin/env bash
# The demo: the headless client's main job in a fresh temporary home.
set -uo pipefail
build=${1:-build}
client="$build/src/app/corvalink-sync"

home=$(mktemp -d /tmp/corvalink-demo-XXXXXX)
echo "== Corvalink Sync demo, home: $home"
echo "== corvalink-sync --headless --once (no account configured yet)"
HOME="$home" "$client" --headless --once --time-scale 0.05
code=$?
echo "== exit code: $code (2: no account configured)"
echo "== what the client wrote:"
(cd "$home" && find Corvalink -type f | sort)
log=$(find "$home/Corvalink/.Settings/CVLogger/CVMainLogs" -name 'LOG *_1.txt' | head -1)
echo "== main log ($log):"
cat "$log"; echo
