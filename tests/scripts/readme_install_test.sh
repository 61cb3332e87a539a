#!/usr/bin/env bash
# readme_install_test.sh TREE: carries out README.md's block under "Install the library".
#
# As it stands there, through overlay.sh, so that /usr/local and the loader's cache are the real ones and nothing stays. Where
# that is not allowed: with a prefix and a build directory of its own in place of those in the block.
set -euo pipefail
export LC_ALL=C
cd "$1"
here=$(cd -- "$(dirname -- "$0")" && pwd -P)
if [ "${2:-}" != inside ]; then
  status=0
  "$here/overlay.sh" . true || status=$?
  [ "$status" -eq 77 ] || exec "$here/overlay.sh" . "$here/$(basename "$0")" "$PWD" inside
  echo 'The block is carried out with another prefix.'
fi

block=$(awk '/^## Install the library/ { here = 1; next } /^## / { here = 0 }
             here && /^```sh/ { shell = 1; next } /^```/ { shell = 0 } shell' README.md)
for wanted in 'scripts/setup library' 'cmake --preset library' 'cmake --build --preset library' \
              'sudo cmake --install build/library' 'sudo ldconfig' '-o build/payment'; do
  grep -qF -- "$wanted" <<<"$block" || { echo "README.md does not name: $wanted"; exit 1; }
done

unset LD_LIBRARY_PATH PKG_CONFIG_PATH PKG_CONFIG_LIBDIR
if [ "${2:-}" = inside ]; then
  # Nothing of an earlier installation or build. This shell is root's already.
  prefix=/usr/local build=$PWD/build
  rm -rf build/library build/payment /usr/local/{lib,include,share}/*tallowin* /usr/local/lib/{cmake,pkgconfig}/tallowin*
  ldconfig
  printf '#!/bin/sh\nexec "$@"\n' >/usr/local/bin/sudo
  chmod 755 /usr/local/bin/sudo
else
  stage=$(mktemp -d)
  trap 'rm -rf -- "$stage"' EXIT
  prefix=$stage/prefix build=$stage
  export LD_LIBRARY_PATH=$prefix/lib PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  block=$(sed "s|^cmake --preset library|& -B '$stage/library'|; s|^cmake --build --preset library|cmake --build '$stage/library'|
               s|^sudo cmake --install build/library|cmake --install '$stage/library' --prefix '$prefix'|
               s|^sudo ldconfig|ldconfig -n '$prefix/lib'|; s|-o build/|-o $stage/|" <<<"$block")
  export PATH=$PATH:/usr/sbin:/sbin
fi

log=$(mktemp)
bash -euo pipefail -c "$block" >"$log" 2>&1 || { cat "$log"; exit 1; }

libraries=$(ldd "$build/payment") # grep may end before ldd has written all
grep -q "libtallowin\.so\.1 => $prefix/lib" <<<"$libraries" ||
  { echo 'the program does not find the library:'; echo "$libraries"; exit 1; }
status=0
"$build/payment" >"$log" 2>&1 || status=$?
{ [ "$status" -eq 2 ] && grep -q '^usage: ' "$log"; } || { echo "the program ends with $status:"; cat "$log"; exit 1; }

# What the block builds: the library, and nothing of tests, sandbox, examples.
if find "$build/library" -name '*.o' | grep -E '_seams|/(tests|sandbox|examples|bench|jni)/'; then
  echo 'this is more than the library'
  exit 1
fi
rm -f "$log"
