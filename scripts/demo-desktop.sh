#!/usr/bin/env bash
# The desktop demo: the desktop client on a virtual display with a session bus of
# its own, where corvalink-traywatch plays the panel's tray host and the
# notification server and prints what the tray shows. With a second argument,
# the pictures go to that folder (make screenshots).
set -uo pipefail
build=${1:-build}
shots=${2:-}
if [ -z "${CORVALINK_DEMO_SESSION:-}" ]; then
  export CORVALINK_DEMO_SESSION=1
  # A session as a desktop's: an unlocked login keyring that keeps the password.
  # What the session's own services say (the bus, the display, the keyring, the
  # accessibility bus) goes to a log of its own; the demo's lines come here.
  session_log=$(mktemp /tmp/corvalink-desktop-session-XXXXXX.log)
  "$(dirname "$0")/../tests/e2e/with-keyring.sh" xvfb-run -a -s "-screen 0 1024x700x24" \
    bash "$0" "$build" "$shots" 2> "$session_log"
  code=$?
  echo "== The session's own services logged to $session_log"
  exit $code
fi
# Inside the session: the demo's output and errors go to the terminal.
exec 2>&1
client="$PWD/$build/src/app/corvalink-sync"
server="$PWD/$build/tools/devserver/corvalink-devserver"
traywatch="$PWD/$build/tools/traywatch/corvalink-traywatch"
source "$(dirname "$0")/devserver.sh"
# wait_for_tray_host OUT PID: until the traywatch of PID writing to OUT serves, or has ended.
wait_for_tray_host() {
  until grep -q "tray host ready" "$1" 2>/dev/null; do
    kill -0 "$2" 2>/dev/null || return
    sleep 0.1
  done
}

work=$(mktemp -d /tmp/corvalink-desktop-demo-XXXXXX)
home="$work/home"
storage="$work/server/Docs"
shots=${shots:-$work}
mkdir -p "$home" "$storage/Reports" "$shots"
for i in 1 2 3 4 5; do head -c 3000000 /dev/urandom > "$storage/Reports/scan $i.pdf"; done
printf 'Quarterly figures\n' > "$storage/Reports/Q3 results.txt"

echo "== Local server, storage Docs in $storage"
start_devserver "$work/server.out" "$work/server.err" --user alice:secret --user bob:pw --storage "Docs=$storage"

export HOME="$home" XDG_RUNTIME_DIR="$home/run" XDG_DATA_DIRS="$PWD/$build/share:/usr/share"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
echo "== Sign in from the terminal and sync all of Docs"
echo secret | "$client" login "$url" alice --password-stdin 2>&1 | sed 's/^/   /'
"$client" select Docs all | sed 's/^/   /'

echo "== The desktop client starts; the tray as the panel sees it:"
"$traywatch" \
  --wait-menu 'Sync now \(last update at .*' --screenshot-menu "$shots/tray-menu.png" \
  --run "'$client' show > /dev/null" --screenshot "$shots/sync-manager.png" \
  --click 'Settings…' --screenshot "$shots/settings-tab.png" \
  --click 'Storages…' --screenshot "$shots/storages-tab.png" \
  --press 'Add storage' --screenshot "$shots/storage-sheet.png" --press 'Cancel' \
  --press 'Choose folders' --screenshot "$shots/folders-sheet.png" --press 'Cancel' \
  --run "'$client' share '$home/Corvalink/Docs/Reports/Q3 results.txt'" \
  --screenshot "$shots/share-window.png" --press 'Cancel share' \
  --run "printf 'Quarterly figures, revised\\n' > '$home/Corvalink/Docs/Reports/Q3 results.txt'; sleep 2" \
  --file-manager "ViewVersions $home/Corvalink/Docs/Reports/Q3 results.txt" \
  --screenshot "$shots/version-window.png" --press 'Close' \
  --click 'Activity…' --run 'sleep 1' --screenshot "$shots/activity-window.png" --press 'Close' \
  --run "'$client' share '$home/Corvalink/Docs/Reports/Q3 results.txt' --to bob > /dev/null && '$client' request create 'Tax 2026' --to ann@example.com joe@example.com --days 5 > /dev/null" \
  --click 'Shared files…' --press 'Shared Out' --press "$(printf 'bob\xe2\xa0\x80(bob@devserver)')" --press 'Open' \
  --press 'Q3 results.txt' --screenshot "$shots/shared-files-window.png" \
  --press 'Change expiry' --run 'sleep 1' --screenshot "$shots/edit-share-sheet.png" --press 'Cancel edit' \
  --press 'Close shared files' \
  --click 'Upload requests…' --press 'Tax 2026' --press 'Open' --press 'ann@example.com' \
  --screenshot "$shots/upload-requests-window.png" --press 'Close upload requests' \
  --click 'Pause sync' --wait-menu 'Start sync.*' \
  --click 'Start sync' --wait-menu 'Sync now.*' \
  --click 'Exit' > "$work/tray.out" 2>&1 &
watch_pid=$!
until grep -q "tray host ready" "$work/tray.out" 2>/dev/null; do
  kill -0 $watch_pid 2>/dev/null || { cat "$work/tray.out"; exit 1; }
  sleep 0.1
done
QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 "$client" --time-scale 0.05 > "$work/client.out" 2>&1 &
client_pid=$!
wait $watch_pid
watch_code=$?
# Exit was the last step; a scenario that stopped halfway, or an Exit that went
# unheard, leaves the client running: end it, and say so.
for _ in $(seq 1 100); do kill -0 $client_pid 2>/dev/null || break; sleep 0.1; done
if kill -0 $client_pid 2>/dev/null; then
  echo "   the client still runs after the tray scenario; quitting it from the terminal"
  "$client" quit > /dev/null 2>&1
  watch_code=1
fi
wait $client_pid
client_code=$?
sed 's/^/   /' "$work/tray.out"
echo "   traywatch exit code: $watch_code, client exit code: $client_code (0: both as expected)"

echo "== A first start without an account opens the sign-in window:"
fresh="$work/fresh"
mkdir -p "$fresh/run" && chmod 700 "$fresh/run"
HOME="$fresh" XDG_RUNTIME_DIR="$fresh/run" "$traywatch" --wait-menu 'Sign in….*' \
  --screenshot "$shots/sign-in.png" --click 'Exit' > "$work/tray-fresh.out" 2>&1 &
fresh_watch=$!
wait_for_tray_host "$work/tray-fresh.out" $fresh_watch
HOME="$fresh" XDG_RUNTIME_DIR="$fresh/run" timeout 60 "$client" 2>&1 | sed 's/^/   /'
wait $fresh_watch || watch_code=1

echo "== GNOME Files with this build's extension, on the synced storage:"
extension="$PWD/$build/extensions/nautilus"
if [ -f "$extension/libcorvalink-nautilus.so" ] && command -v nautilus > /dev/null &&
  bwrap --dev-bind / / true 2> /dev/null; then
  files_log="$work/nautilus.out"
  # GNOME Files opens on the storage before the client starts (a child of this
  # script: it ends with it), and the picture is taken once its folders have their badges.
  XDG_DATA_DIRS="$XDG_DATA_DIRS" G_MESSAGES_DEBUG=CorvalinkNautilus "$PWD/scripts/nautilus-with-extension.sh" \
    "$extension" "$(pkg-config --variable=extensiondir libnautilus-extension-4)" \
    --new-window "$home/Corvalink/Docs" > "$files_log" 2>&1 &
  files_pid=$!
  badges="for _ in \$(seq 1 300); do grep -q 'emblem .* on $home/Corvalink/Docs/Reports\$' '$files_log' && exit 0; sleep 0.2; done; exit 1"
  "$traywatch" --wait-menu 'Sync now.*' --run "$badges" --screenshot "$shots/file-manager-badges.png" \
    --click 'Exit' > "$work/tray-files.out" 2>&1 &
  files_watch=$!
  wait_for_tray_host "$work/tray-files.out" $files_watch
  timeout 120 "$client" --time-scale 0.05 > "$work/client-files.out" 2>&1
  wait $files_watch || watch_code=1
  kill $files_pid 2> /dev/null
  wait $files_pid 2> /dev/null
  sed 's/^/   /' "$work/tray-files.out"
  grep -h "emblem" "$files_log" | sed 's/^.*DEBUG: [0-9:.]* /   /' | sort -u
else
  echo "   left out: the extension is not built, GNOME Files is not installed or bubblewrap may not run here"
fi
echo
echo "== The client's files: $(find "$home/Corvalink/Docs" -type f | wc -l) of $(find "$storage" -type f | wc -l) from the server"
echo "== Pictures of the tray menu, the sync manager's tabs, its sheets, the share, version, shared files and upload request windows and the sign-in window in $shots"
echo "== The client's main log, its tray and window lines:"
grep -h -E "DesktopApp|paused|resumed|Sync now pressed|Main loop" "$home"/Corvalink/.Settings/CVLogger/CVMainLogs/*/* | sed 's/^/   /' | tail -12
[ "$watch_code" -eq 0 ] && [ "$client_code" -eq 0 ]
