# A sandbox for tests in a shell: `. sandbox.sh`, then sandbox_start and at the end sandbox_stop.
# tallowin-sandbox is looked for in TALLOWIN_SANDBOX and in the path.

# sandbox_start DATA: starts a sandbox on free ports and waits until it is ready. Sets sandbox_auto, sandbox_base.
sandbox_start() {
  "${TALLOWIN_SANDBOX:-tallowin-sandbox}" --data "$1" --json >"$1.addresses" &
  sandbox_pid=$!
  until [ -s "$1.addresses" ]; do
    kill -0 "$sandbox_pid" || return 1
    sleep 0.1
  done
  sandbox_auto=$(sandbox_member auto <"$1.addresses")
  sandbox_base=$(sandbox_member dashboard <"$1.addresses")
  curl -sSf --retry 30 --retry-connrefused --retry-delay 1 -o "$1.health" "${sandbox_base}health"
}

sandbox_stop() {
  kill "$sandbox_pid" && wait "$sandbox_pid"
}

# sandbox_control METHOD PATH [JSON]: the answer of the control API.
sandbox_control() {
  curl -sSf -X "$1" -H 'Content-Type: application/json' ${3:+-d "$3"} "${sandbox_base}control/$2"
}

# sandbox_member NAME: the member of the outermost JSON object on standard input, when it is a plain string.
sandbox_member() {
  sed -n 's/^\(  \|.*[{,]\)"'"$1"'": \{0,1\}"\([^"]*\)".*/\2/p'
}
