# Sourced by scripts that run lxrepo-server on loopback (the demo, the side-by-side import benchmark).
# Expects $build (a build folder with server/lxrepo-server). Sets $work, a temporary folder that
# is removed on exit together with every server started here.
work="$(mktemp -d)"
pids=()

cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

# Starts lxrepo-server with the given options on a free loopback port and sets $port to that
# port, which the server writes as its first line of output. Not run in a subshell, so that
# cleanup knows every server's pid.
start_server() {
  local name="$1"; shift
  "$build/server/lxrepo-server" --address 127.0.0.1 --port 0 "$@" \
    >"$work/$name.out" 2>"$work/$name.err" &
  pids+=("$!")
  for _ in $(seq 100); do
    if [ -s "$work/$name.out" ]; then
      port="$(head -n 1 "$work/$name.out")"
      return
    fi
    sleep 0.1
  done
  echo "the $name did not start:" >&2
  cat "$work/$name.err" >&2
  return 1
}
