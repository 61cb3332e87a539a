#!/usr/bin/env bash
# overlay.sh DIRECTORY COMMAND...: runs COMMAND as root in DIRECTORY, on a copy of this machine's files.
#
# The copy is an overlay in a mount namespace: what COMMAND writes is gone afterwards, and nothing is copied. An ordinary user
# becomes root through sudo, when that asks for no password. Where this is not allowed, the script says so and ends with 77.
set -euo pipefail
self=$(readlink -f -- "$0")
directory=$(cd -- "$1" && pwd -P)
shift
if [ "$(id -u)" -ne 0 ]; then
  sudo -n true 2>/dev/null || { echo 'overlay.sh: needs root, or sudo without a password' >&2; exit 77; }
  exec sudo -n "$self" "$directory" "$@"
fi
namespaces=(--mount --pid --fork --kill-child)
unshare "${namespaces[@]}" true || { echo 'overlay.sh: this machine allows no mount namespace here' >&2; exit 77; }
# shellcheck disable=SC2016  # for the inner shell
exec unshare "${namespaces[@]}" bash -euc '
  directory=$1
  shift
  layers=0
  # overlay PATH: PATH in the new root, where writing changes nothing.
  overlay() {
    layers=$((layers + 1))
    mkdir -p "/mnt/upper$layers" "/mnt/work$layers" "/mnt/root$1"
    mount -t overlay overlay -o "lowerdir=$1,upperdir=/mnt/upper$layers,workdir=/mnt/work$layers" "/mnt/root$1" || {
      echo "overlay.sh: this machine allows no overlay here" >&2
      exit 77
    }
  }
  mount -t tmpfs tmpfs /mnt
  overlay /
  overlay "$directory"  # it may be a file system of its own
  mount -t proc proc /mnt/root/proc
  mount --rbind /dev /mnt/root/dev
  cd /
  exec chroot /mnt/root bash -c "cd \"\$0\" && exec \"\$@\"" "$directory" "$@"' overlay.sh "$directory" "$@"
