#!/usr/bin/env bash
# lint_test.sh TREE: clang-tidy with the tree's settings reports names that the style does not allow, and only these.
set -euo pipefail
if ! command -v clang-tidy >/dev/null; then
  echo 'no clang-tidy (scripts/setup lint installs it)'
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
cat >"$work/names.cpp" <<'TEXT'
struct Good { int m_Size = 0; };
struct Bad { int size = 0; };
enum class Kind { kOne, two };
constexpr int kLimit = 3;
int sum(Good a, Bad b) { return a.m_Size + b.size + kLimit + static_cast<int>(Kind::kOne); }
TEXT
found=$(clang-tidy --config-file="$1/.clang-tidy" --checks='-*,readability-identifier-naming' --quiet "$work/names.cpp" -- \
  -std=c++17 2>/dev/null || true)
found=$(sed -nE 's/.*names\.cpp:([0-9]+):.*(error|warning): .*/\1/p' <<<"$found" | paste -sd ' ')
[ "$found" = '2 3' ] || { echo "found in lines '$found', not '2 3'"; exit 1; }
