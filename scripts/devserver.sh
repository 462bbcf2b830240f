# Sourced by the demos. start_devserver OUT ERR ARGUMENTS... starts the local server
# ("$server") on a free port with its output in OUT and ERR, sets server_pid and url,
# and stops the server when the script ends.
start_devserver() {
  local out=$1 err=$2
  shift 2
  "$server" --listen 127.0.0.1:0 "$@" > "$out" 2> "$err" &
  server_pid=$!
  trap 'kill $server_pid 2>/dev/null; wait $server_pid 2>/dev/null' EXIT
  for _ in $(seq 1 50); do
    url=$(sed -n 's/^corvalink-devserver listening on \(http[^ ]*\)$/\1/p' "$out")
    [ -n "$url" ] && return 0
    sleep 0.1
  done
  echo "the local server did not start:"
  cat "$out" "$err"
  exit 1
}
