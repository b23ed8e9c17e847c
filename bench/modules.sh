#!/usr/bin/env bash
# modules.sh INCLUDE-FOLDER...: prints how large a stripped module is that uses the bridge in
# various ways, and how long it takes to compile. Measures the compiler that CXX names.
set -euo pipefail
cxx=${CXX:-g++}
sources=$(dirname "${BASH_SOURCE[0]}")/modules
flags=(-std=c++17 -O2 -fPIC -shared "${@/#/-I}")
names=(empty plain_endpoints direct_subscriber inbox_subscriber six_handles)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

compile() { # NAME: adds the user CPU seconds of the compiler and of what it starts to NAME.seconds
  local TIMEFORMAT=%U
  { time "$cxx" "${flags[@]}" "$sources/$1.cpp" -o "$work/$1.so" 2>"$work/errors"; } \
    2>>"$work/$1.seconds" || {
    cat "$work/errors" >&2
    exit 1
  }
}

row() { # NAME TEXT
  strip "$work/$1.so"
  # The least time is that of the run which the machine has disturbed least.
  printf '| %s | %d | %.2f |\n' "$2" "$(wc -c <"$work/$1.so")" \
    "$(sort -n "$work/$1.seconds" | head -n 1)"
}

for _ in 1 2 3; do
  for name in "${names[@]}"; do compile "$name"; done
done
printf '| module | stripped, bytes | user CPU of %s, s |\n|---|--:|--:|\n' "$(basename "$cxx")"
row empty "without the bridge"
row plain_endpoints "plain publisher and subscriber"
row direct_subscriber "typed subscriber, direct delivery"
row inbox_subscriber "typed subscriber with an inbox"
row six_handles "publisher, subscriber, server, client, holder and watcher"
