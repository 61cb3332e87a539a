#!/usr/bin/env bash
# headers.sh INCLUDE: compiles every installed header alone and twice over, C headers as C99 and C++, the others as C++,
# with $CC, $CXX and, where there is one, clang.
set -euo pipefail
export LC_ALL=C
include=$1
warnings=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$include")
failed=0

# try HEADER LANGUAGE COMPILER STANDARD
try() {
  printf '#include <tallowin/%s>\n#include <tallowin/%s>\nint thisFileHasSomething;\n' "$1" "$1" |
    "$3" -x "$2" -std="$4" "${warnings[@]}" - || { echo "$1: does not compile alone with $3 -std=$4"; failed=1; }
}

# declare_again LANGUAGE COMPILER STANDARD: tallowin-ffi.h declares what tallowin.h does, with the same types.
declare_again() {
  local before= after=
  if [ "$1" = c++ ]; then
    before='extern "C" {' after='}'
  fi
  printf '#include <tallowin/tallowin.h>\n%s\n#include <tallowin/tallowin-ffi.h>\n%s\n' "$before" "$after" |
    "$2" -x "$1" -std="$3" "${warnings[@]}" - ||
    { echo "tallowin-ffi.h: does not declare what tallowin.h does, with $2 -std=$3"; failed=1; }
}

cxx=("$CXX")
cc=("$CC")
if command -v clang++ > /dev/null; then
  cxx+=(clang++)
  cc+=(clang)
fi

count=0
for path in "$include"/tallowin/*.h "$include"/tallowin/*.hpp; do
  header=$(basename "$path")
  [ "$header" != tallowin-ffi.h ] || continue # for readers with an int32_t of their own; below
  case $header in
    codes.h | export.h | ledger.h | tallowin.h | version.h)
      for compiler in "${cc[@]}"; do
        try "$header" c "$compiler" c99
        try "$header" c "$compiler" c11
      done
      ;;
  esac
  for compiler in "${cxx[@]}"; do
    try "$header" c++ "$compiler" c++17
    try "$header" c++ "$compiler" c++20
  done
  count=$((count + 1))
done
for compiler in "${cc[@]}"; do
  declare_again c "$compiler" c11
done
for compiler in "${cxx[@]}"; do
  declare_again c++ "$compiler" c++17
done
echo "$count headers, compilers: ${cc[*]} ${cxx[*]}"
[ "$count" -ge 26 ] || { echo 'too few headers'; failed=1; }
exit "$failed"
