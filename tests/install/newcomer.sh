#!/usr/bin/env bash
# newcomer.sh TREE WORK: the way of somebody who is new here, on a bare Debian, as root: from a clone of TREE to packages, to programs
# of twenty lines in C, PHP and Python that are paid by the packaged sandbox. Prints each step with the seconds it took; WORK
# must not exist. Such a Debian is made by scripts/debianroot:
#
#   scripts/debianroot --packages ca-certificates ROOT tests/install/newcomer.sh /tallowin /build/newcomer
set -euo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive PYTHONDONTWRITEBYTECODE=1
tree=$1 work=$2
here=$(cd -- "$(dirname -- "$0")" && pwd -P)
mkdir -- "$work"

# step WHAT COMMAND...: runs it and prints its time, and what it says when it fails.
step() {
  local what=$1 before=$SECONDS
  shift
  "$@" >"$work/log" 2>&1 || { tail -n 40 "$work/log"; echo "failed: $what"; exit 1; }
  printf '%4d s  %s\n' $((SECONDS - before)) "$what"
}

# A visitor with a browser: opens the payment URL, presses "Pay", prints DATA and SIGNATURE of the address that follows.
visitor() {
  KVX_ROOT=$work/tallowin PYTHONPATH=$work/tallowin/tests/support python3 -c '
import sys
from sandboxcase import Browser, parameters
print(*parameters(Browser().decide(sys.argv[1], "pay")), sep="\n")' "$1"
}

# paid COMMAND...: starts a shop's program, lets a visitor pay at the URL that it prints, and hands it what comes back.
paid() {
  local shop to from url result=''
  "$@" <to_shop >from_shop &
  shop=$!
  exec {to}>to_shop {from}<from_shop
  read -r -t 30 url <&"$from"
  visitor "$url" >&"$to"
  read -r -t 30 result <&"$from" || true
  exec {to}>&- {from}<&-
  wait "$shop"
  echo "$result"
  [ "$result" = authorised ]
}

started=$SECONDS
get_git() { apt-get update && apt-get install -y --no-install-recommends git; }
clone() { git -c safe.directory='*' clone --quiet "$tree" "$work/tallowin"; }
step 'apt-get install git' get_git
export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0='*'
step 'git clone' clone
cd "$work/tallowin"
step 'scripts/setup packages' scripts/setup packages
step 'scripts/package' scripts/package
step 'apt-get install build/packages/*.deb' apt-get install -y --no-install-recommends ./build/packages/*.deb
step 'apt-get install gcc pkg-config php-cli python3' apt-get install -y --no-install-recommends gcc libc6-dev pkg-config php-cli python3

cd "$work"
mkfifo ready to_shop from_shop
tallowin-sandbox --data service --json >ready &
sandbox=$!
trap 'kill "$sandbox"' EXIT
read -r -t 30 ready <ready
[[ $ready =~ \"auto\":\"([^\"]*)\" ]]
service=${BASH_REMATCH[1]}
set_up() { tallowin setup --dir merchant --user demo "$service" <<<demo; }
step 'tallowin-sandbox; tallowin setup' set_up
build() {
  local flags
  read -ra flags < <(pkg-config --cflags --libs tallowin)
  cc -Wall -Werror "$here/newcomer/pay.c" -o pay "${flags[@]}"
}
step 'cc pay.c' build
step 'C: a payment' paid ./pay merchant
step 'PHP: a payment' paid env BINDINGS="$work/tallowin/bindings" php "$here/newcomer/pay.php" merchant
step 'Python: a payment' paid env PYTHONPATH="$work/tallowin/bindings/python/src" python3 "$here/newcomer/pay.py" merchant
step 'tallowin doctor' tallowin doctor --dir merchant
printf '%4d s  in all\n' $((SECONDS - started))
