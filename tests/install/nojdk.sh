#!/usr/bin/env bash
# nojdk.sh CMAKE GENERATOR SOURCE BUILD    without a JDK the tree configures, says so once, and leaves out Java alone
set -euo pipefail
cmake=$1 generator=$2 source=$3 build=$4

rm -rf -- "$build"
for run in first second; do
  # A compiler without the rest of a JDK around it.
  "$cmake" -S "$source" -B "$build" -G "$generator" -DKVX_JAVAC=/bin/false -DKVX_BUILD_TESTS=OFF >"$build.$run.log" 2>&1 ||
    { cat "$build.$run.log"; exit 1; }
done
told() { grep -c 'No JDK of 11 or later' "$build.$1.log" || true; }
[ "$(told first) $(told second)" = '1 0' ] || { echo "told $(told first) and $(told second) times"; exit 1; }

targets=$("$cmake" --build "$build" --target help)
grep -qE '(^|[ :])(libtallowin\.so|tallowin)(:|$| )' <<<"$targets" || { echo 'there is no library'; exit 1; }
if grep -E 'kvx_jni|tallowin_jar|tallowin_ledger_jni' <<<"$targets"; then
  echo 'these need a JDK'
  exit 1
fi
