#!/usr/bin/env bash
# Whole payments in front of your eyes: builds what that takes, starts a payment service of its own, and lets a merchant
# and its shoppers play. See --help.
set -euo pipefail

usage() {
  cat <<'TEXT'
Usage: ./demo.sh [--shop | --java] [--keep]

Shows payments from end to end on this machine: an account is set up, a payment URL made, a shopper pays, the shop
verifies, captures and completes the payment, and refuses what is forged. Everything runs on 127.0.0.1 and goes through
libtallowin.so. The first run prints which Debian packages are missing and how large they are, installs them (as root or
with sudo, from a Debian mirror), and builds into build/demo. Later runs need no network.

  --shop   a shop to click through instead: prints its address, to be opened in a browser, and serves until you press
           Ctrl-C
  --java   the same with a smaller shop written in Java; a JDK is installed when there is none
  --keep   leave the directory with the merchant's files and the payment service's data, and say where it is
  --help   this text

Exit status: 0 when every step ended as it should, else 1; 2 for wrong usage.
TEXT
}

keep=no
show=walk
for argument in "$@"; do
  case "$argument" in
    --shop | --java) show=${argument#--} ;;
    --keep) keep=yes ;;
    --help | -h) usage; exit 0 ;;
    *) printf 'demo.sh: unknown option %s\n\n' "$argument" >&2; usage >&2; exit 2 ;;
  esac
done

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
build="$root/build/demo"
build_log="$root/build/demo.log"
ready_seconds=30  # for the service to start
stop_seconds=10   # for the service to end when asked to

work=''
service=''     # process id of the payment service while it runs
service_out='' # descriptor of its output

bold='' red='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then bold=$'\e[1m' plain=$'\e[0m'; fi
if [ -t 2 ] && [ -z "${NO_COLOR:-}" ]; then red=$'\e[1;31m' plain=$'\e[0m'; fi

note() { printf '%s%s%s\n' "$bold" "$*" "${bold:+$plain}"; }
fail() {
  printf '%sdemo.sh: %s%s\n' "$red" "$*" "${red:+$plain}" >&2
  exit 1
}
fail_with_log() {
  local log=$1
  shift
  if [ -s "$log" ]; then
    printf '\n--- the last lines of %s\n' "$log" >&2
    tail -n 40 -- "$log" >&2
    printf -- '---\n' >&2
  fi
  fail "$@"
}

# run COMMAND...: waits for it in a way that signals to this script get through. It has a process group of its own, so
# that whatever it starts can be ended with it.
run() {
  local status=0
  set -m
  "$@" </dev/null &
  set +m
  wait "$!" || status=$?
  return "$status"
}

# Ends the service and waits for it: its output ends when it does. Its own status, or 1 when it had to be killed.
stop_service() {
  local id=$service status=0 rest
  [ -n "$id" ] || return 0
  service=''
  kill -TERM "$id" 2>/dev/null || true
  while read -r -t "$stop_seconds" -u "$service_out" rest || { status=$?; false; }; do :; done
  if [ "$status" -gt 128 ]; then
    kill -KILL "$id" 2>/dev/null || true
    wait "$id" 2>/dev/null || true
    return 1
  fi
  wait "$id"
}

clean_up() {
  local status=$? id
  trap '' INT TERM HUP
  trap - EXIT
  # A signal may have come between a start and the assignments after it, so ask the shell what runs.
  service=${service:-${service_process_PID:-}}
  service_out=${service_out:-${service_process[0]:-}}
  for id in $(jobs -pr); do
    if [ "$id" != "$service" ]; then
      kill -TERM -- "-$id" 2>/dev/null || true
      wait "$id" 2>/dev/null || true
    fi
  done
  stop_service || true
  if [ -n "$work" ]; then
    if [ "$keep" = yes ]; then
      printf '\nKept for looking at: %s\n' "$work"
      printf '  %s\n' "merchant/  the configuration directory: config.xml, default.xml, keys/" \
        "service/   the payment service's data; to see the payments again:" \
        "           ${build#"$PWD"/}/sandbox/tallowin-sandbox --data $work/service"
    else
      rm -rf -- "$work"
    fi
  fi
  exit "$status"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# build_all TARGET...
build_all() {
  (
    # One build at a time, also when somebody runs this script twice.
    flock 9 &&
      cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKVX_BUILD_TESTS=OFF -DKVX_BUILD_BENCH=OFF \
            -DKVX_BUILD_JAVA="$java" &&
      exec cmake --build "$build" --target tallowin-sandbox "$@"
  ) 9>"$build.lock" >"$build_log" 2>&1
}

packages=(sandbox)
java=OFF
case "$show" in
  walk) target=tallowin-demo ;;
  shop) target=tallowin-shop ;;
  java) target=tallowin_jar java=ON packages+=(java) ;;
esac
"$root/scripts/setup" "${packages[@]}" || fail "the packages that the demonstration needs are not all there"
mkdir -p -- "$root/build"
note "Building (details in ${build_log#"$PWD"/})"
run build_all "$target" || fail_with_log "$build_log" "the build failed"

work=$(mktemp -d -- "${TMPDIR:-/tmp}/tallowin-demo.XXXXXX") || fail "no temporary directory could be made"
coproc service_process { exec "$build/sandbox/tallowin-sandbox" --data "$work/service" --json 2>"$work/service.log"; }
service=${service_process_PID:?}
exec {service_out}<&"${service_process[0]}"
ready=''
read -r -t "$ready_seconds" -u "$service_out" ready ||
  fail_with_log "$work/service.log" "the payment service did not start"
address_of() { sed -n 's/.*"'"$1"'":"\([^"]*\)".*/\1/p' <<<"$ready"; }
setup_address=$(address_of auto)
dashboard=$(address_of dashboard)
[ -n "$setup_address" ] && [ -n "$dashboard" ] || fail "the payment service did not tell its addresses: $ready"
note "The payment service runs (process $service), set-up at $setup_address"
note "Its dashboard is open at $dashboard"
printf '\n'

export TALLOWIN_PASSWORD=demo  # of the account in a new sandbox
case "$show" in
  walk) play=("$build/examples/tallowin-demo" "$setup_address" "$work/merchant") ;;
  shop) play=("$build/examples/tallowin-shop" "$work/merchant" "$setup_address" demo) ;;
  java)
    java_run=$(sed -n 's/^KVX_JAVA_RUN:FILEPATH=//p' "$build/CMakeCache.txt")
    play=("$java_run" -cp "$build/java/tallowin.jar:$root/examples/common/shop" "$root/examples/java/Shop.java"
          "$work/merchant" "$setup_address" demo)
    ;;
esac
status=0
run "${play[@]}" || status=$?
[ "$status" -eq 0 ] || fail_with_log "$work/service.log" "the demonstration did not end as it should (status $status)"
stop_service || fail_with_log "$work/service.log" "the payment service did not end as it should"
