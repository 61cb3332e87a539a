#!/usr/bin/env bash
# samejar.sh CMAKE GENERATOR SOURCE BUILD WORK: a second build, of a copy of the tree elsewhere, in another time zone and language, with
# other modes and times of files, gives the same bytes: all jars and the POM.
set -euo pipefail
cmake=$1 generator=$2 source=$3 build=$4 work=$5

rm -rf "$work"
mkdir -p "$work/another place for the tree"
copy=$work/another\ place\ for\ the\ tree
cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
options=(-DKVX_BUILD_TESTS=OFF -DKVX_BUILD_SANDBOX=OFF -DKVX_BUILD_TOOLS=OFF -DKVX_BUILD_EXAMPLES=OFF)
for name in CMAKE_BUILD_TYPE CMAKE_C_COMPILER CMAKE_CXX_COMPILER CMAKE_C_FLAGS CMAKE_CXX_FLAGS KVX_JAVAC KVX_JAVA_NATIVES \
            CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER; do
  options+=("-D$name=$(cached "$name")")
done

umask 077
export TZ=Pacific/Kiritimati LC_ALL=C
for part in CMakeLists.txt README.md SECURITY.md cmake include foundation xml core net api jni java ledger packaging; do
  cp -R --no-preserve=all "$source/$part" "$copy/$part"
done
if ! { "$cmake" -S "$copy" -B "$work/build" -G "$generator" "${options[@]}" &&
       "$cmake" --build "$work/build" --target tallowin_jar tallowin_java_sources tallowin_javadoc; } >"$work/log" 2>&1; then
  tail -n 30 "$work/log"
  exit 1
fi

failed=0
for file in tallowin.jar tallowin-sources.jar tallowin-javadoc.jar staged/META-INF/maven/kelvane.tallowin/tallowin/pom.xml; do
  if ! cmp "$build/java/$file" "$work/build/java/$file"; then
    python3 - "$build/java/$file" "$work/build/java/$file" <<'EOF' || true
import sys, zipfile
first, second = ({entry.filename: entry for entry in zipfile.ZipFile(name).infolist()} for name in sys.argv[1:])
print("entries that differ:", sorted(name for name in first.keys() | second.keys() if name not in first or name not in second
                                     or first[name].CRC != second[name].CRC))
EOF
    failed=1
  fi
done
exit "$failed"
