#!/usr/bin/env bash
# ledger.sh CMAKE BUILD WORK LIBDIR plain|instrumented: installs the order ledger with the library, looks at it, and builds a program
# with what pkg-config says and one with find_package, both in C and in C++.
set -euo pipefail
export LC_ALL=C
cmake=$1 build=$2 work=$3 libdir=$4 kind=$5
prefix=$work/prefix
library=$prefix/$libdir/libtallowin-ledger.so
failed=0
complain() {
  echo "$1"
  failed=1
}

rm -rf "$work"
mkdir -p "$work"
for component in lib dev ledger ledger-dev; do
  "$cmake" --install "$build" --prefix "$prefix" --component "$component" > /dev/null
done
dynamic=$(readelf -dW "$library")
grep -q 'Library soname: \[libtallowin-ledger\.so\.1\]' <<< "$dynamic" || complain 'the SONAME is not libtallowin-ledger.so.1'
grep -q 'RUNPATH.*\[\$ORIGIN\]' <<< "$dynamic" || complain 'it does not look for the library beside itself'
if [ "$kind" = plain ]; then
  for name in $(sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' <<< "$dynamic"); do
    case $name in
      libtallowin.so.1 | libsqlite3.so.0 | libcrypto.so.3 | libstdc++.so.6 | libgcc_s.so.1 | libm.so.6 | libc.so.6 | ld-linux*) ;;
      *) complain "needs $name" ;;
    esac
  done
fi
# What it exports is what the header declares.
exported=$(nm -D --defined-only "$library" | sed -nE 's/^[0-9a-f]+ T ([A-Za-z_]+)@@TALLOWIN_LEDGER_1$/\1/p' | sort)
declared=$(sed -nE 's/^KVX_EXPORT [A-Za-z0-9_ *]*[ *]([A-Z][A-Za-z]*(_[A-Za-z]+)?)\(.*/\1/p' "$prefix/include/tallowin/ledger.h" | sort)
[ "$exported" = "$declared" ] || complain "exported and declared differ: $(diff <(echo "$exported") <(echo "$declared") || true)"

# The header compiles alone, in both languages.
echo '#include <tallowin/ledger.h>' > "$work/alone.c"
for language in 'c c99' 'c c11' 'c++ c++17' 'c++ c++20'; do
  read -r name standard <<< "$language"
  "$CC" -x "$name" "-std=$standard" -pedantic -Wall -Wextra -Werror -I "$prefix/include" -fsyntax-only "$work/alone.c" ||
    complain "ledger.h does not compile alone as $standard"
done

cat > "$work/program.c" <<'END'
#include <tallowin/ledger.h>
int main(void) {
    KVX_HANDLE ledger = CreateLedger();
    int32_t result = Ledger_SetOption(ledger, "CAPTURE", "1");
    DestroyLedger(ledger);
    return result != KVX_OK || KVX_GetVersion() == 0;
}
END
export PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH= # no other package is to be found
read -ra flags <<< "$(pkg-config --cflags --libs tallowin-ledger) ${INSTRUMENTS:-}"
"$CC" -std=c99 -pedantic -Wall -Wextra -Werror "$work/program.c" -o "$work/by_pkgconfig" "${flags[@]}"
LD_LIBRARY_PATH=$prefix/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} "$work/by_pkgconfig" || complain 'the program by pkg-config fails'
cat > "$work/program.cpp" <<'END'
#include <tallowin/ledger.hpp>
int main() {
    try {
        tallowin::Ledger const orders("sqlite:orders.db", "no/such/account");
    } catch (tallowin::ResultError const& failure) {
        return failure.code() == KVX_E_CANNOT_OPEN ? 0 : 1;
    }
    return 1;
}
END
"$CXX" -std=c++17 -pedantic -Wall -Wextra -Werror "$work/program.cpp" -o "$work/cxx_by_pkgconfig" "${flags[@]}"
LD_LIBRARY_PATH=$prefix/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} "$work/cxx_by_pkgconfig" ||
  complain 'the program in C++ by pkg-config fails'

cat > "$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.22)
project(consumer LANGUAGES C CXX)
find_package(tallowin 1.0 REQUIRED COMPONENTS ledger)
add_executable(by_cmake program.c)
target_link_libraries(by_cmake PRIVATE tallowin::ledger)
add_executable(cxx_by_cmake program.cpp)
target_compile_features(cxx_by_cmake PRIVATE cxx_std_17)
target_link_libraries(cxx_by_cmake PRIVATE tallowin::ledger)
END
{ "$cmake" -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$INSTRUMENTS" -DCMAKE_CXX_FLAGS="$INSTRUMENTS" &&
  "$cmake" --build "$work/build"; } > "$work/log" 2>&1 || { cat "$work/log"; exit 1; }
"$work/build/by_cmake" && "$work/build/cxx_by_cmake" || complain 'a program by find_package fails'
exit "$failed"
