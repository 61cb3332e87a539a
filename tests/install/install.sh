#!/usr/bin/env bash
# install.sh CMAKE BUILD PREFIX LIBDIR COMPONENT...: installs the library's components from BUILD into PREFIX afresh and looks whether
# all is there.
set -euo pipefail
export LC_ALL=C
cmake=$1 build=$2 prefix=$3 libdir=$4
shift 4

rm -rf "$prefix"
for component in "$@"; do
  "$cmake" --install "$build" --prefix "$prefix" --component "$component" > /dev/null
done

missing=0
for file in include/tallowin/{tallowin,tallowin-ffi,codes,export,version,cConfigurationSetup,cMessageFactory,cMessageObject}.h \
            include/tallowin/{tbstring,tbstringstream,tbvector,tbrbtree,tbmap,tbmultimap,tbexception}.h \
            include/tallowin/{xmlelement,xmlparser,xmlquery,kvxbase,kvxctx,icct,kvxurl,kvxhttp}.h \
            include/tallowin/tallowin.hpp "$libdir"/libtallowin.{a,so,so.1} "$libdir"/pkgconfig/tallowin.pc \
            "$libdir"/cmake/tallowin/{tallowinConfig,tallowinConfigVersion,tallowinTargets,tallowinStaticTargets}.cmake; do
  [ -e "$prefix/$file" ] || { echo "$file: is not installed"; missing=1; }
done

# What stays inside is not to be found by a user's include either.
if grep -nE '#include "(foundation|xml|core|net|api|jni)/' "$prefix"/include/tallowin/*.{h,hpp}; then
  echo 'an installed header includes a layer'
  missing=1
fi
# Nothing installed may lead back to where it was built.
if grep -rlI -e "$build" "$prefix/include" "$prefix/$libdir/pkgconfig" "$prefix/$libdir/cmake"; then
  echo 'an installed file names the build directory'
  missing=1
fi
# find_package accepts a request for this version or an older one of the same first number.
cat > "$prefix/version.cmake" <<'END'
foreach(request 1 1.0 1.0.0 1.999 2 0.9)
  set(PACKAGE_FIND_VERSION ${request})
  string(REGEX MATCH "^[0-9]+" PACKAGE_FIND_VERSION_MAJOR ${request})
  include("${FILE}")
  if(PACKAGE_VERSION_COMPATIBLE)
    message("${request}")
  endif()
endforeach()
END
accepted=$("$cmake" -DFILE="$prefix/$libdir/cmake/tallowin/tallowinConfigVersion.cmake" -P "$prefix/version.cmake" 2>&1 | paste -sd ' ')
rm "$prefix/version.cmake"
[ "$accepted" = '1 1.0 1.0.0' ] || { echo "find_package accepts the versions $accepted"; missing=1; }
exit "$missing"
