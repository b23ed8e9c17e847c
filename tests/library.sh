#!/bin/sh
# library.sh NM READELF BRIDGE HANDLES MODULE [android]: checks what the built libraries show to the
# linker, and that the headers leave a module of default visibility nothing that another could bind
# to.
set -eu
nm=$1 readelf=$2 bridge=$3 handles=$4 module=$5 system=${6:-}
map=$(dirname "$0")/../cmake/exports.map

dynamic() { "$readelf" -dW "$1" | sed -n "s/.*($2).*\[\(.*\)\]/\1/p"; } # LIBRARY TAG
expect() { # WHAT ACTUAL EXPECTED
  [ "$2" = "$3" ] || { printf '%s: %s\nexpected: %s\n' "$1" "$2" "$3"; exit 1; }
}

# The export list is the committed list of what must be there; the names of methods are shortened.
exports=$(sed -nE 's/^ +_ZN6bridge6Zorvix[0-9]+(.*)E\*;/bridge::Zorvix::\1/p; s/^ +(Zorvix.*);/\1/p' "$map")
expect "number of exports" "$(echo "$exports" | wc -l)" 31
expect exports "$("$nm" -D --defined-only --demangle "$bridge" |
  sed -E 's/^[0-9a-f]+ . //; s/\(.*//' | LC_ALL=C sort)" "$(echo "$exports" | LC_ALL=C sort)"
# Weak symbols are copies of what a header or the standard library defines.
expect "exports of the handles that are weak or not theirs" \
  "$("$nm" -D --defined-only "$handles" | grep -vE ' [TR] (_ZNK?6zorvix|zorvix_handles_)')" ""

# Wherever in a name: lambdas and the standard library's code for types of the headers count, too.
expect "symbols of the headers in a module" \
  "$("$nm" -D --defined-only "$module" | grep -E ' _Z.*6(bridge|zorvix)')" ""
# The standard library would bind to them and keep the module loaded, if that loads it first.
expect "symbols of the standard library in a module that dlclose must unload" \
  "$("$nm" -D --defined-only "$module" | grep -E ' _Z(T[A-Z]|T[chv][0-9n_]*|GV|Z)*N?K?S[abdiost]')" ""

check() { # LIBRARY SONAME NEEDED-OF-OUR-LIBRARIES NEEDED-ON-ANDROID
  expect SONAME "$(dynamic "$1" SONAME)" "$2"
  expect "NEEDED of $2" "$(dynamic "$1" NEEDED | grep zorvix | grep -v zorvix_log)" "$3"
  "$readelf" -dW "$1" | grep -q 'FLAGS_1.*NODELETE' || { echo "dlclose unloads $2"; exit 1; }
  [ "$system" = android ] || return 0
  expect "NEEDED of $2" "$(dynamic "$1" NEEDED | grep -v -x -e 'lib[cm].so' -e libdl.so | sort | xargs)" \
    "$4"
  expect "alignment of LOAD segments" \
    "$("$readelf" -lW "$1" | awk '$1 == "LOAD" {print $NF}' | sort -u)" 0x4000
  "$readelf" -nW "$1" | grep -q 'Build ID: [0-9a-f]'
}
check "$bridge" libcom.quenmar.zorvix.so "" "libc++_shared.so liblog.so"
check "$handles" libcom.quenmar.zorvix.handles.so libcom.quenmar.zorvix.so \
  "libc++_shared.so libcom.quenmar.zorvix.so liblog.so"
