#!/usr/bin/env bash
# embedded.sh CMAKE GENERATOR CONSUMER WORK TREE: builds the programs with the library as a subdirectory of their project, runs
# them, and looks that the project installs nothing of the library.
set -euo pipefail
export LC_ALL=C
cmake=$1 generator=$2 consumer=$3 work=$4 tree=$5

rm -rf "$work"
for kind in shared static; do
  "$cmake" -S "$consumer" -B "$work" -G "$generator" -DLINK="$kind" -DEMBED="$tree" \
           -DCMAKE_C_FLAGS="$INSTRUMENTS" -DCMAKE_CXX_FLAGS="$INSTRUMENTS" > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
  "$cmake" --build "$work" --target c_program cxx_program > "$work.log" 2>&1 || { cat "$work.log"; exit 1; }
  "$work/c_program"
  "$work/cxx_program"
done
[ ! -e "$work/compile_commands.json" ] || { echo 'compile_commands.json is written unasked'; exit 1; }
"$cmake" --install "$work" --prefix "$work/prefix" > /dev/null
if [ -n "$(find "$work/prefix" -type f 2> /dev/null)" ]; then
  echo 'the project installs the library'
  exit 1
fi
