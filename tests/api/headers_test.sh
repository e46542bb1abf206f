#!/bin/bash
# Compiles every public header alone, and the umbrella twice over, as C11 and as C++20 with each
# compiler at hand: no warning, and no header that leans on what another one included before it.
#
#   headers_test.sh INCLUDE_FOLDER GENERATED_FOLDER
set -eu
include=$1 generated=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

warnings=(-Wall -Wextra -Wpedantic -Wshadow -Werror -fsyntax-only "-I$include"
          -isystem "$generated")
compiled=0
for header in "$include"/*.h; do
  name=$(basename "$header")
  printf '#include "%s"\n#include "%s"\nint kavrin_not_empty;\n' "$name" "$name" > "$work/one.c"
  cp "$work/one.c" "$work/one.cpp"
  for compiler in gcc clang; do
    command -v "$compiler" > /dev/null || continue
    "$compiler" -std=c11 "${warnings[@]}" -Wstrict-prototypes "$work/one.c" ||
      { echo "headers: $name is not clean C11 for $compiler" >&2; exit 1; }
    compiled=$((compiled + 1))
  done
  for compiler in g++ clang++; do
    command -v "$compiler" > /dev/null || continue
    "$compiler" -std=c++20 "${warnings[@]}" "$work/one.cpp" ||
      { echo "headers: $name is not clean C++20 for $compiler" >&2; exit 1; }
    compiled=$((compiled + 1))
  done
done
[ "$compiled" -ge 20 ] || { echo "headers: only $compiled compilations, is $include right?" >&2; exit 1; }
echo "headers: $compiled compilations without a warning"
