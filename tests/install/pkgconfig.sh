#!/usr/bin/env bash
# pkgconfig.sh SOURCE WORK LIBRARYDIR shared|static: builds and runs the programs with what pkg-config says.
set -euo pipefail
export LC_ALL=C
source=$1 work=$2 library=$3 kind=$4
export PKG_CONFIG_LIBDIR=$library/pkgconfig PKG_CONFIG_PATH= # no other package is to be found

rm -rf "$work"
mkdir -p "$work"
read -ra cflags <<< "$(pkg-config --cflags tallowin) ${INSTRUMENTS:-}"
if [ "$kind" = static ]; then
  read -ra libs <<< "$(pkg-config --static --libs tallowin | sed 's/-ltallowin/-l:libtallowin.a/')"
else
  read -ra libs <<< "$(pkg-config --libs tallowin)"
  export LD_LIBRARY_PATH=$library${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
fi
"$CC" -std=c99 -pedantic -Wall -Wextra -Werror "$source/program.c" -o "$work/c_program" "${cflags[@]}" "${libs[@]}"
"$CXX" -std=c++17 -pedantic -Wall -Wextra -Werror "$source/program.cpp" -o "$work/cxx_program" "${cflags[@]}" "${libs[@]}"
"$work/c_program"
"$work/cxx_program"
version=$(sed -nE 's/#define TALLOWIN_VERSION_STRING "(.*)"/\1/p' "$(pkg-config --variable=includedir tallowin)/tallowin/version.h")
[ "$(pkg-config --modversion tallowin)" = "$version" ] || { echo 'pkg-config tells another version'; exit 1; }
