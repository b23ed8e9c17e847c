#!/bin/sh
# library.sh NM READELF LIBRARY MODULE [android]: checks what the built library shows to the linker,
# and that the headers leave a module of default visibility nothing that another could bind to.
set -eu
nm=$1 readelf=$2 library=$3 module=$4
map=$(dirname "$0")/../cmake/exports.map

dynamic() { "$readelf" -dW "$library" | sed -n "s/.*($1).*\[\(.*\)\]/\1/p"; } # TAG
expect() { # WHAT ACTUAL EXPECTED
  [ "$2" = "$3" ] || { printf '%s: %s\nexpected: %s\n' "$1" "$2" "$3"; exit 1; }
}

# The export list is the committed list of what must be there; the names of methods are shortened.
exports=$(sed -nE 's/^ +_ZN6bridge6Zorvix[0-9]+(.*)E\*;/bridge::Zorvix::\1/p; s/^ +(Zorvix.*);/\1/p' "$map")
expect "number of exports" "$(echo "$exports" | wc -l)" 31
expect exports "$("$nm" -D --defined-only --demangle "$library" |
  sed -E 's/^[0-9a-f]+ . //; s/\(.*//' | LC_ALL=C sort)" "$(echo "$exports" | LC_ALL=C sort)"
# Wherever in a name: lambdas and the standard library's code for types of the headers count, too.
expect "symbols of the headers in a module" \
  "$("$nm" -D --defined-only "$module" | grep -E ' _Z.*6(bridge|zorvix)')" ""
# The standard library would bind to them and keep the module loaded, if that loads it first.
expect "symbols of the standard library in a module that dlclose must unload" \
  "$("$nm" -D --defined-only "$module" | grep -E ' _Z(T[A-Z]|GV|Z)*N?K?S[abdiost]')" ""
expect SONAME "$(dynamic SONAME)" libcom.quenmar.zorvix.so
if [ "${5:-}" = android ]; then
  expect NEEDED "$(dynamic NEEDED | grep -v -x -e 'lib[cm].so' -e libdl.so | sort | xargs)" \
    "libc++_shared.so liblog.so"
  expect "alignment of LOAD segments" \
    "$("$readelf" -lW "$library" | awk '$1 == "LOAD" {print $NF}' | sort -u)" 0x4000
  "$readelf" -nW "$library" | grep -q 'Build ID: [0-9a-f]'
fi
