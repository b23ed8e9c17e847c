#!/bin/sh
# files.sh SOURCE: compares the page about all files with the folders.
set -eu
cd "$1"
awk -F'|' '
  /^## `/ { split($0, heading, "`"); folder = heading[2] }
  /^\| `/ { count = split($2, names, "`"); for (i = 2; i < count; i += 2) print folder names[i] }
' docs/design/files.md | sort >"$2"
find common handles mqtt host -name '*.h' -o -name '*.cpp' -o -name '*.py' | sort | diff "$2" -
