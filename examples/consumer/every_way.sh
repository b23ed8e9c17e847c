#!/bin/sh
# every_way.sh SOURCE WORK [CMAKE-OPTION...]: installs the library and lets the project beside this
# script take it in each way it is offered, from paths with a space in them, after the build tree is
# gone.
set -eu
source=$1 work="$2/a folder"
shift 2
installed="$work/installed here"
rm -rf "$work"
mkdir -p "$work"
log="$work/log"
export CMAKE_GENERATOR=Ninja
trap 'status=$?; [ $status = 0 ] || cat "$log"' EXIT

cmake -S "$source" -B "$work/build" -DZORVIX_BUILD_EXAMPLES=OFF "$@" >"$log"
cmake --build "$work/build" >>"$log"
cmake --install "$work/build" --prefix "$work/staged" >>"$log"
rm -rf "$work/build"
mv "$work/staged" "$installed"
libdir=$(dirname "$(find "$installed" -name 'libcom.quenmar.zorvix.so')")

consume() { # WAY [CMAKE-OPTION...]
  way=$1
  shift
  cmake -S "$source/examples/consumer" -B "$work/$way" -DWAY="$way" "$@" >"$log" 2>&1
  cmake --build "$work/$way" >>"$log" 2>&1
  "$work/$way/consumer" 2>>"$log" | grep -x 'message received by consumer' >>"$log"
  echo "$way: builds and runs"
}
consume find_package -DCMAKE_PREFIX_PATH="$installed"
PKG_CONFIG_PATH="$libdir/pkgconfig" consume pkg-config
consume add_subdirectory -DZORVIX_SOURCE="$source"
consume FetchContent -DZORVIX_SOURCE="$source"

# A project without a build system.
PKG_CONFIG_PATH="$libdir/pkgconfig"
export PKG_CONFIG_PATH
eval "c++ -std=c++17 '$source/examples/consumer/main.cpp' -o '$work/plain' \
  $(pkg-config --cflags --libs zorvix) '-Wl,-rpath,$libdir'" >"$log" 2>&1
"$work/plain" >>"$log" 2>&1
echo "pkg-config by hand: builds and runs"

# Another major version is refused.
sed 's/find_package(zorvix 1 /find_package(zorvix 2 /' "$source/examples/consumer/CMakeLists.txt" \
  >"$work/CMakeLists.txt"
if cmake -S "$work" -B "$work/major" -DWAY=find_package -DCMAKE_PREFIX_PATH="$installed" \
  >"$log" 2>&1; then
  exit 1
fi
grep -q 'requested version "2"' "$log"
echo "find_package of another major version: refused"
