#!/bin/sh
# install_test.sh SOURCE WORK [CMAKE-OPTION...]: installs the library, then builds, installs and runs
# the project consumer/ with each kind of package. All paths contain a space.
set -eux
source=$1 work="$2/a folder"
shift 2
export CMAKE_GENERATOR=Ninja PKG_CONFIG_PATH="$work/installed here/lib/pkgconfig"
rm -rf "$work"
mkdir -p "$work"
cd "$work"

cmake -S "$source" -B build -DCMAKE_INSTALL_LIBDIR=lib -DZORVIX_BUILD_EXAMPLES=OFF \
  -DZORVIX_BUILD_MQTT=ON "$@"
grep -x CMAKE_BUILD_TYPE:STRING=Release build/CMakeCache.txt
cmake --build build
cmake --install build --prefix 'installed here'
rm -rf build
[ "$(cd 'installed here/include/zorvix' && find . -name '*.h' | sort)" = \
  "$(for folder in common handles mqtt; do (cd "$source/$folder/zorvix" && find . -name '*.h'); done | sort)" ]

# Checks whether a file stays loaded after dlclose and links the handles' library (0 or 1).
shows() { # FILE STAYS-LOADED LINKS-HANDLES
  readelf -d "$1" >dynamic
  [ "$(grep -c 'FLAGS_1.*NODELETE' dynamic)" = "$2" ]
  [ "$(grep -c 'NEEDED.*\[libcom.quenmar.zorvix.handles.so]' dynamic)" = "$3" ]
  grep 'NEEDED.*\[libcom.quenmar.zorvix.so]' dynamic
}

consume() { # FOLDER [CMAKE-OPTION...]
  cmake -S "$source/packaging/consumer" -B "$@"
  cmake --build "$1"
  cmake --install "$1" --prefix "$1/installed"
  "$1/installed/bin/consumer" | grep -x message
  "$1/plain_consumer" | grep -x message
  cmake --build "$1" --target trace_consumer
  python3 'installed here/share/zorvix/draw_trace.py' "$1/trace.json" | grep 'Subscriber topic$'
  shows "$1/libplain.so" 1 0
  shows "$1/libplain_in_part.so" 1 0
  shows "$1/libhandles.so" 0 1
  shows "$1/libhandles_in_part.so" 0 1
  shows "$1/libboth.so" 1 1
  shows "$1/libunloadable.so" 0 1
  if nm -D --defined-only "$1/libunloadable.so" | grep -E ' _ZN?St'; then exit 1; fi
}

components() { # COMPONENT...: the files that cmake --install puts into an app
  rm -rf part
  for component; do cmake --install FetchContent --prefix part --component "$component" >&2; done
  (cd part && find . -type f ! -name libzorvix_log.so -printf '%f\n' | sort | xargs)
}

consume find_package -DCMAKE_PREFIX_PATH="$work/installed here"
find_package/mqtt_consumer | grep -x connecting
consume FetchContent -DZORVIX_SOURCE="$source" "$@"
[ "$(find FetchContent/installed -type f ! -name 'lib*.so' -printf %f)" = consumer ]
consume FetchContent -DZORVIX_INSTALL=ON
ls FetchContent/installed/lib*/cmake/zorvix/zorvixConfig.cmake
[ "$(components zorvix)" = libcom.quenmar.zorvix.so ]
[ "$(components zorvix zorvix_handles)" = \
  'libcom.quenmar.zorvix.handles.so libcom.quenmar.zorvix.so' ]

# The guide's line, evaluated twice because of the space in what pkg-config prints.
cp "$source"/packaging/consumer/*.cpp .
line=$(eval "echo \"$(grep '^c++ .*pkg-config' "$source/docs/guide/adopt.md")\"")
eval "$line"
./main | grep -x message
eval "$line -shared -fPIC -o module.so"
shows module.so 0 1
plain="c++ -std=c++17 plain.cpp $(pkg-config --cflags --libs zorvix)"
eval "$plain -o plain"
./plain | grep -x message
eval "$plain -shared -fPIC -o plain.so"
shows plain.so 1 0
eval "c++ -std=c++17 mqtt.cpp $(pkg-config --cflags --libs zorvix-mqtt) -o mqtt"
./mqtt | grep -x connecting
