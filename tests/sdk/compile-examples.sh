#!/bin/sh
# Compiles the C++ examples of documents, each as it stands there:
#   compile-examples.sh COMPILER INCLUDE-DIRECTORY DOCUMENT...
compiler=$1 include=$2
shift 2
place=$(mktemp -d) || exit 1
trap 'rm -rf "$place"' EXIT
failed=0
for document; do
  name=$(basename "$document" .md)
  awk -v prefix="$place/$name-" '
    /^```cpp$/ { inside = 1; file = prefix (++count) ".cpp"; next }
    /^```$/ { inside = 0 }
    inside { print > file }' "$document"
  [ -e "$place/$name-1.cpp" ] || { echo "no example in $document" && failed=1; }
done
for example in "$place"/*.cpp; do
  "$compiler" -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I "$include" "$example" || failed=1
done
exit $failed
