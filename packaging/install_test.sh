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
  "$(for folder in common typed mqtt; do (cd "$source/$folder/zorvix" && find . -name '*.h'); done | sort)" ]

stays_loaded() { # MODULE
  readelf -d "$1" | grep 'FLAGS_1.*NODELETE'
}

consume() { # FOLDER [CMAKE-OPTION...]
  cmake -S "$source/packaging/consumer" -B "$@"
  cmake --build "$1"
  cmake --install "$1" --prefix "$1/installed"
  "$1/installed/bin/consumer" | grep -x message
  stays_loaded "$1/libmodule.so"
  if stays_loaded "$1/libunloadable.so"; then exit 1; fi
  if nm -D --defined-only "$1/libunloadable.so" | grep ' _ZNSt'; then exit 1; fi
}
consume find_package -DCMAKE_PREFIX_PATH="$work/installed here"
find_package/mqtt_consumer | grep -x connecting
consume FetchContent -DZORVIX_SOURCE="$source" "$@"
[ "$(find FetchContent/installed -type f ! -name 'lib*.so' -printf %f)" = consumer ]
consume FetchContent -DZORVIX_INSTALL=ON
ls FetchContent/installed/lib*/cmake/zorvix/zorvixConfig.cmake
cmake --install FetchContent --prefix part --component zorvix
[ "$(find part -type f ! -name libzorvix_log.so -printf %f)" = libcom.quenmar.zorvix.so ]

# The guide's line, evaluated twice because of the space in what pkg-config prints.
cp "$source/packaging/consumer/main.cpp" .
line=$(eval "echo \"$(grep '^c++ .*pkg-config' "$source/docs/guide.md")\"")
eval "$line"
./main
eval "$line -shared -fPIC -o module.so"
stays_loaded module.so

cp "$source/packaging/consumer/mqtt.cpp" .
eval "$(echo "$line" | sed s/main.cpp/mqtt.cpp/) $(pkg-config --libs zorvix-mqtt)"
./main | grep -x connecting
