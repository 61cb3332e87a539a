#!/usr/bin/env bash
# otherrelease.sh LIBRARYDIR MAP CONSUMER WORK: makes a library of another release with the same SONAME. A program in C that was
# built against this release runs with it, and a program in C++ is refused when it is loaded.
set -euo pipefail
export LC_ALL=C PKG_CONFIG_PATH=$1/pkgconfig
library=$1 map=$2 consumer=$3 work=$4

rm -rf "$work"
mkdir -p "$work/other"
sed -E 's/TALLOWIN_CXX_[0-9.]+/TALLOWIN_CXX_1.999.0/' "$map" > "$work/other.map"
! cmp -s "$map" "$work/other.map" || { echo 'the map has no node of this release'; exit 1; }
read -ra instruments <<< "${INSTRUMENTS:-}"
read -ra cflags <<< "$(pkg-config --cflags tallowin)"
read -ra dependencies <<< "$(pkg-config --static --libs tallowin | sed 's/-ltallowin//')"
"$CXX" "${instruments[@]}" -shared -o "$work/other/libtallowin.so.1" -Wl,-soname,libtallowin.so.1 "-Wl,--version-script=$work/other.map" \
  -Wl,--whole-archive "$library/libtallowin.a" -Wl,--no-whole-archive "${dependencies[@]}"
"$CC" "${instruments[@]}" "$consumer/program.c" -o "$work/c_program" "${cflags[@]}" -L"$library" -ltallowin
"$CXX" "${instruments[@]}" -std=c++17 "$consumer/program.cpp" -o "$work/cxx_program" "${cflags[@]}" -L"$library" -ltallowin

LD_LIBRARY_PATH=$library "$work/cxx_program" > /dev/null || { echo 'the program in C++ does not run with its own release'; exit 1; }
LD_LIBRARY_PATH=$work/other "$work/c_program" || { echo 'the program in C does not run with another release'; exit 1; }
if LD_LIBRARY_PATH=$work/other "$work/cxx_program" > "$work/log" 2>&1; then
  echo 'the program in C++ runs with another release'
  exit 1
fi
grep -q "version \`TALLOWIN_CXX_.*' not found" "$work/log" || { cat "$work/log"; exit 1; }
