#!/usr/bin/env bash
# debian_root.sh TREE PACKAGES dpkg|apt: installs the packages in the folder PACKAGES on this system, uses them, purges them, and looks
# whether a file is left. Run as root where nothing of that matters. With apt, dependencies come from the mirror.
set -euo pipefail
export LC_ALL=C DEBIAN_FRONTEND=noninteractive PYTHONDONTWRITEBYTECODE=1
tree=$1 packages=$2 installer=$3
unset LD_LIBRARY_PATH PKG_CONFIG_PATH PKG_CONFIG_LIBDIR CFLAGS LDFLAGS
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

files() {
  find /etc /opt /srv /usr /var -path /var/lib/dpkg -prune -o -path /var/lib/apt -prune -o -path /var/cache -prune -o \
    -path /var/log -prune -o -path /var/tmp -prune -o -print 2>/dev/null | sort
}
# run COMMAND...: prints what it says only when it fails.
run() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; echo "failed: $*"; return 1; }; }

mapfile -t archives < <(find "$packages" -name '*.deb' ! -name '*-dbgsym_*' | sort)
mapfile -t names < <(for archive in "${archives[@]}"; do dpkg-deb -f "$archive" Package; done)
files >"$work/before"
case $installer in
  dpkg) run dpkg --install "${archives[@]}" ;;
  apt) run apt-get install -y --no-install-recommends "${archives[@]}" ;;
esac
for name in "${names[@]}"; do
  changed=$(dpkg --verify "$name")
  [ -z "$changed" ] || { echo "$name is not what was packed: $changed"; exit 1; }
done
mkdir "$work/use"
python3 -B "$tree/tests/install/debian_use.py" "$tree" "$work/use"
case $installer in
  dpkg) run dpkg --purge "${names[@]}" ;;
  apt) run apt-get purge -y --autoremove "${names[@]}" ;;
esac
files | diff --label 'before' --label 'after the purge' "$work/before" - || { echo 'the purge leaves something'; exit 1; }
echo "installed, used and purged: ${names[*]}"
