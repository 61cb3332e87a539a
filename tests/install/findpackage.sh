#!/usr/bin/env bash
# findpackage.sh CMAKE GENERATOR SOURCE WORK PREFIX shared|static: builds and runs the programs with find_package.
# For shared no package but this one may be looked for.
set -euo pipefail
export LC_ALL=C
cmake=$1 generator=$2 source=$3 work=$4 prefix=$5 kind=$6
alone=()
[ "$kind" = static ] || alone=(-DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON)

rm -rf "$work"
"$cmake" -S "$source" -B "$work" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" -DLINK="$kind" "${alone[@]}" \
         -DCMAKE_C_FLAGS="$INSTRUMENTS" -DCMAKE_CXX_FLAGS="$INSTRUMENTS" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
"$cmake" --build "$work" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
programs=("$work/c_program")
[ ! -e "$source/program.cpp" ] || programs+=("$work/cxx_program")
for program in "${programs[@]}"; do
  "$program"
done
if [ "$kind" = static ] && readelf -dW "${programs[@]}" | grep libtallowin; then
  echo 'the shared library was linked after all'
  exit 1
fi
