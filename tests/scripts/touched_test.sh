#!/usr/bin/env bash
# touched_test.sh TREE: every file of the tree that tests can touch has a label, and every label is a folder with tests.
set -euo pipefail
cd "$1"
failed=0
for folder in foundation xml core net api jni java ledger sandbox diagnosis examples fuzz include cmake packaging scripts docs bindings/* tests/*/; do
  folder=${folder%/}
  [ "$folder" != tests/data ] || continue
  [ -n "$(scripts/touched --files <<<"$folder/file")" ] || { echo "$folder: no label"; failed=1; }
done
for label in $(find . -path ./build -prune -o -path ./.git -prune -o -type f -print | sed 's|^\./||' | scripts/touched --files); do
  [ -e "tests/$label/CMakeLists.txt" ] || [ "$label" = fuzz ] || { echo "$label: no folder with tests"; failed=1; }
done
[ "$(printf '%s\n' foundation/tbmap.h | scripts/touched --files | paste -sd ' ')" = 'api core costs foundation net xml' ] ||
  { echo 'a header of the foundation touches something else'; failed=1; }
[ "$(printf '%s\n' docs/risks.md sandbox/service.cpp | scripts/touched --files | paste -sd ' ')" = 'docs flow sandbox' ] ||
  { echo 'labels of two files do not add up'; failed=1; }
exit "$failed"
