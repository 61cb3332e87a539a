#!/usr/bin/env bash
# install.sh CMAKE BUILD PREFIX LIBDIR: installs BUILD into PREFIX afresh and looks whether all is there.
set -euo pipefail
export LC_ALL=C
cmake=$1 build=$2 prefix=$3 libdir=$4

rm -rf "$prefix"
"$cmake" --install "$build" --prefix "$prefix" > /dev/null

missing=0
for file in include/tallowin/{tallowin,codes,export,version,cConfigurationSetup,cMessageFactory,cMessageObject}.h \
            include/tallowin/{tbstring,tbstringstream,tbvector,tbrbtree,tbmap,tbmultimap,tbexception}.h \
            include/tallowin/{xmlelement,xmlparser,xmlquery,kvxbase,kvxctx,icct,kvxurl,kvxhttp}.h \
            "$libdir"/libtallowin.{a,so,so.1} "$libdir"/pkgconfig/tallowin.pc \
            "$libdir"/cmake/tallowin/{tallowinConfig,tallowinConfigVersion,tallowinTargets,tallowinStaticTargets}.cmake; do
  [ -e "$prefix/$file" ] || { echo "$file: is not installed"; missing=1; }
done

# What stays inside is not to be found by a user's include either.
if grep -nE '#include "(foundation|xml|core|net|api|jni)/' "$prefix"/include/tallowin/*.h; then
  echo 'an installed header includes a layer'
  missing=1
fi
# Nothing installed may lead back to where it was built.
if grep -rlI -e "$build" "$prefix/include" "$prefix/$libdir/pkgconfig" "$prefix/$libdir/cmake"; then
  echo 'an installed file names the build directory'
  missing=1
fi
exit "$missing"
