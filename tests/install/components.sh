#!/usr/bin/env bash
# components.sh CMAKE BUILD WORK LIBDIR COMPONENT...: installs each component alone and looks whether it holds its own files, whether
# all together are a whole installation, and whether that works after it was moved.
set -euo pipefail
export LC_ALL=C
cmake=$1 build=$2 work=$3 libdir=$4
shift 4
failed=0
complain() {
  printf '%s\n' "$1"
  failed=1
}

# What a component holds at least.
declare -A own=(
  [lib]="$libdir/libtallowin.so.1"
  [dev]="$libdir/libtallowin.so $libdir/libtallowin.a include/tallowin/tallowin.h $libdir/pkgconfig/tallowin.pc"
  [ledger]="$libdir/libtallowin-ledger.so.1"
  [ledger-dev]="$libdir/libtallowin-ledger.so include/tallowin/ledger.h include/tallowin/ledger.hpp $libdir/pkgconfig/tallowin-ledger.pc"
  [java]="share/java/tallowin.jar share/maven-repo"
  [tools]="bin/tallowin"
  [sandbox]="bin/tallowin-sandbox lib/systemd/user/tallowin-sandbox.service share/man/man1/tallowin-sandbox.1"
  [doc]="share/doc/tallowin/README.md share/doc/tallowin/docs/abi.md share/doc/tallowin/examples/c/payment.c"
)

files_below() { (cd "$1" && find . ! -type d | sort); }

rm -rf "$work"
mkdir -p "$work"
for component in "$@"; do
  "$cmake" --install "$build" --prefix "$work/$component" --component "$component" >/dev/null
  for file in ${own[$component]}; do
    [ -e "$work/$component/$file" ] || [ -L "$work/$component/$file" ] || complain "$component does not hold $file"
  done
  files_below "$work/$component" >>"$work/parts"
done
"$cmake" --install "$build" --prefix "$work/whole" >/dev/null
twice=$(sort "$work/parts" | uniq -d)
[ -z "$twice" ] || complain "in two components: $twice"
diff -u --label 'all components' --label 'whole installation' <(sort -u "$work/parts") <(files_below "$work/whole") ||
  complain 'the components are not the whole'

# Moved: nothing leads back to where it was built or installed.
mv "$work/whole" "$work/moved"
prefix=$work/moved
if grep -rl -e "$work/whole" -e "$build" "$prefix"; then
  complain 'these hold the place of the build or the prefix'
fi
for program in "$prefix"/bin/*; do
  (cd / && env -u LD_LIBRARY_PATH "$program" --help >/dev/null) || complain "${program##*/} does not run after a move"
done

# The sandbox's page names its options, all of them and no other.
if [ -e "$prefix/bin/tallowin-sandbox" ]; then
  options() { grep -oE -- '--[a-z]+(-[a-z]+)*' | sort -u; }
  diff -u --label 'the help' --label 'the manual page' <("$prefix/bin/tallowin-sandbox" --help | options) \
    <(sed '/^\.SH FILES/,$d; s/\\-/-/g' "$prefix/share/man/man1/tallowin-sandbox.1" | options) ||
    complain 'the manual page of the sandbox has other options'
fi

export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH=
[ "$(pkg-config --variable=includedir tallowin)" -ef "$prefix/include" ] || complain 'tallowin.pc does not follow a move'
exit "$failed"
