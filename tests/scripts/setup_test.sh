#!/usr/bin/env bash
# setup_test.sh TREE: what scripts/setup installs, and what it does to services. Runs through overlay.sh, with apt-get and dpkg
# as they are, and a package archive of its own on disk.
set -euo pipefail
export LC_ALL=C
cd "$1"
failed=0
complain() {
  printf '%s\n' "$1"
  failed=1
}

# The groups.
for group in library sandbox java; do
  list=$(scripts/setup --list "$group")
  if grep -oE 'nginx[^ ]*|tinyproxy|libgtest[^ ]*|junit4|clang[^ ]*|python3' <<<"$list"; then
    complain "the group $group has packages of the tests"
  fi
done
! grep -q httplib <<<"$(scripts/setup --list library)" || complain 'the group library has packages of the sandbox'
[ "$(scripts/setup --list library java library)" = "$(scripts/setup --list java)" ] || complain 'groups do not join'
status=0
scripts/setup --list unknown >/dev/null 2>&1 || status=$?
[ "$status" -eq 2 ] || complain "an unknown group ends with $status"

# add_package NAME [SERVICE]: an empty package in the archive, or one with the service NAME, enabled and started when installed.
archive=/tallowin-archive
add_package() {
  local name=$1 root=$archive/$1
  mkdir -p "$root/DEBIAN"
  printf 'Package: %s\nVersion: 99\nArchitecture: all\nMaintainer: nobody\nInstalled-Size: 1200\nDescription: test\n' "$name" \
    >"$root/DEBIAN/control"
  if [ -n "${2:-}" ]; then
    mkdir -p "$root/lib/systemd/system" "$root/etc/init.d"
    printf '[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n' >"$root/lib/systemd/system/$name.service"
    printf '%s\n' '#!/bin/sh' '### BEGIN INIT INFO' "# Provides: $name" '# Required-Start:' '# Required-Stop:' \
      '# Default-Start: 2 3 4 5' '# Default-Stop: 0 1 6' '### END INIT INFO' 'touch /tallowin-started' >"$root/etc/init.d/$name"
    printf '%s\n' '#!/bin/sh' 'set -e' "deb-systemd-helper enable $name.service >/dev/null" "update-rc.d $name defaults" \
      "invoke-rc.d $name start || true" >"$root/DEBIAN/postinst"
    chmod 755 "$root/etc/init.d/$name" "$root/DEBIAN/postinst"
  fi
  dpkg-deb --root-owner-group --build "$root" "$archive/$name.deb" >/dev/null
  {
    dpkg-deb --field "$archive/$name.deb"
    printf 'Filename: ./%s.deb\nSize: %s\nSHA256: %s\n\n' "$name" "$(stat -c %s "$archive/$name.deb")" \
      "$(sha256sum "$archive/$name.deb" | cut -d' ' -f1)"
  } >>"$archive/Packages"
}
mkdir "$archive"
rm -rf /etc/apt/sources.list /etc/apt/sources.list.d /usr/sbin/policy-rc.d
printf 'deb [trusted=yes] file:%s ./\n' "$archive" >/etc/apt/sources.list
printf 'APT::Sandbox::User "root";\n' >/etc/apt/apt.conf.d/99tallowin-test

# One of the packages has a service and is new. Another, with a service too, is installed before and enabled.
purge() {
  dpkg --purge --force-depends tinyproxy >/dev/null 2>&1
  rm -f /var/lib/systemd/deb-systemd-helper-enabled/{,*/}tinyproxy.service* /etc/systemd/system/*/tinyproxy.service \
    /etc/rc?.d/*tinyproxy
}
enabled() { ls -d /etc/rc?.d/S??"$1" /etc/systemd/system/multi-user.target.wants/"$1".service 2>/dev/null || true; }
purge
add_package tinyproxy service
DPKG_MAINTSCRIPT_PACKAGE=nginx deb-systemd-helper enable nginx.service >/dev/null
update-rc.d nginx defaults
update-rc.d nginx enable
mapfile -t packages < <(scripts/setup --list tests | tr ' ' '\n')
missing=1
for package in "${packages[@]}"; do
  if [ "$package" != tinyproxy ] && [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" != 'install ok installed' ]; then
    add_package "$package"
    missing=$((missing + 1))
  fi
done
before=$(enabled nginx)
[ -n "$before" ] || complain 'nginx is not enabled to begin with'

said=$(scripts/setup tests) || complain 'scripts/setup fails'
grep -qE "^Installing $missing packages \([0-9]+\.[0-9] MB to download, [1-9]\.[0-9] MB on disk\): .*tinyproxy" <<<"$said" ||
  complain "it does not say what it installs, but: $said"
[ "$(dpkg-query -W -f='${Version}' tinyproxy)" = 99 ] || complain 'the package is not installed'
[ -z "$(enabled tinyproxy)" ] || complain "a new service is enabled: $(enabled tinyproxy)"
[ ! -e /tallowin-started ] || complain 'a new service was started'
[ ! -e /usr/sbin/policy-rc.d ] || complain 'the policy against starting services is left behind'
[ "$(enabled nginx)" = "$before" ] || complain 'a service that was there before has changed'
[ -z "$(scripts/setup tests)" ] || complain 'a second run has something to do'
apt-get install -qq --reinstall tinyproxy >/dev/null 2>&1
[ -z "$(enabled tinyproxy)" ] || complain "an upgrade enables the service: $(enabled tinyproxy)"

# The package does enable its service when scripts/setup does not install it.
purge
apt-get install -qq tinyproxy >/dev/null 2>&1
[ -n "$(enabled tinyproxy)" ] || complain 'the package of this test does not enable its service'
exit "$failed"
