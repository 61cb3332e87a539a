#!/usr/bin/env bash
# overlay.sh DIRECTORY COMMAND...: runs COMMAND as root in DIRECTORY, on a copy of this machine's files.
#
# The copy is an overlay in a mount namespace: what COMMAND writes is gone afterwards, and nothing is copied. As an ordinary
# user it needs user namespaces. Where neither is allowed, it says so and fails.
set -euo pipefail
directory=$(cd -- "$1" && pwd -P)
shift
namespaces=(--mount --pid --fork --kill-child)
[ "$(id -u)" -eq 0 ] || namespaces+=(--map-root-user)

unshare "${namespaces[@]}" true || { echo 'overlay.sh: this machine allows no mount namespace here' >&2; exit 1; }
exec unshare "${namespaces[@]}" bash -euc '
  directory=$1
  shift
  mount -t tmpfs tmpfs /mnt
  mkdir -p /mnt/{upper,work,root,upper2,work2}
  if ! mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work /mnt/root; then
    echo "overlay.sh: this machine allows no overlay of its root folder" >&2
    exit 1
  fi
  # The directory may be a file system of its own, and these are not in the overlay of the root folder.
  mkdir -p "/mnt/root$directory"
  mount -t overlay overlay -o "lowerdir=$directory,upperdir=/mnt/upper2,workdir=/mnt/work2" "/mnt/root$directory"
  mount -t proc proc /mnt/root/proc
  mount --rbind /dev /mnt/root/dev
  cd /
  exec chroot /mnt/root bash -c "cd \"\$0\" && exec \"\$@\"" "$directory" "$@"' overlay.sh "$directory" "$@"
