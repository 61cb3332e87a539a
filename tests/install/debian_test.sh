#!/usr/bin/env bash
# debian_test.sh TREE WORK [--deep]: builds the Debian packages, and installs, uses and purges them. lintian has a look in scripts/package.
#
# On a copy of this machine's files (overlay.sh), which needs no mirror. --deep also builds them a second time, in another folder and
# under other circumstances, compares the bytes, and repeats the use in a bare Debian of its own, where the mirror must deliver
# what the packages depend on.
set -euo pipefail
tree=$1 work=$2 deep=${3:-}
for program in dh lintian; do
  command -v "$program" >/dev/null || { echo "debian_test.sh: $program is missing (scripts/setup packages)"; exit 77; }
done
export PATH=$PATH:/usr/sbin:/sbin
rm -rf "$work"
mkdir -p "$work/first"
"$tree/scripts/package" --work "$work/build" "$work/first"
status=0
"$tree/tests/scripts/overlay.sh" "$work" "$tree/tests/install/debian_root.sh" "$tree" "$work/first" dpkg || status=$?
[ -n "$deep" ] && [ "$status" -eq 0 ] || exit "$status"

mkdir -p "$work/second/of another length"
(umask 077; TZ=Pacific/Auckland LANG=C HOME=/nonexistent "$tree/scripts/package" --work "$work/elsewhere/and/deeper" "$work/second")
for package in "$work"/first/*.deb; do
  cmp "$package" "$work/second/${package##*/}" || { echo "${package##*/} depends on where or when it is built"; status=1; }
done
[ "$status" -eq 0 ] || exit "$status"

root=$work/root
packages='ca-certificates gcc g++ libc6-dev libssl-dev uuid-dev pkg-config python3 default-jdk-headless'
"$tree/scripts/debianroot" --packages "$packages" "$root" mkdir /build/packages
cp "$work"/first/*.deb "$root/build/packages"
"$tree/scripts/debianroot" "$root" tests/install/debian_root.sh /tallowin /build/packages apt
