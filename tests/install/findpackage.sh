#!/usr/bin/env bash
# findpackage.sh CMAKE GENERATOR SOURCE WORK PREFIX shared|static: builds and runs the programs with find_package.
set -euo pipefail
export LC_ALL=C
cmake=$1 generator=$2 source=$3 work=$4 prefix=$5 kind=$6

rm -rf "$work"
"$cmake" -S "$source" -B "$work" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" -DLINK="$kind" \
         -DCMAKE_C_FLAGS="$INSTRUMENTS" -DCMAKE_CXX_FLAGS="$INSTRUMENTS" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
"$cmake" --build "$work" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
"$work/c_program"
"$work/cxx_program"
if [ "$kind" = static ] && readelf -dW "$work/c_program" "$work/cxx_program" | grep libtallowin; then
  echo 'the shared library was linked after all'
  exit 1
fi
