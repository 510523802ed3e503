#!/usr/bin/env bash
# Installs the library into a folder of its own, and builds the README's first program there with
# nothing but what was installed: found by CMake and by pkg-config, with the shared and with the
# static library. Arguments: CMake, the build folder, the program's source, the compiler, its flags.
set -euo pipefail
cmake=$1 build=$2 source=$3
export CXX=$4 CXXFLAGS=$5
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

"$cmake" --install "$build" --prefix "$folder/prefix" >install.log
mkdir program
sed "s|/tmp/zelta-first|$folder/data|" "$source" >program/first.cpp
cat >program/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(first LANGUAGES CXX)
find_package(zelta 4 REQUIRED)
add_executable(with_shared first.cpp)
target_link_libraries(with_shared PRIVATE zelta::zelta)
add_executable(with_static first.cpp)
target_link_libraries(with_static PRIVATE zelta::zelta_static)
END

# Runs a program twice, which has the one library or none beside those of the system.
try() {
  local program=$1 library=$2
  found=$(ldd "$program" | sed -n 's/.*libzelta[^ ]* => \([^ ]*\).*/\1/p')
  [ "$found" = "$library" ] || { echo "$program is linked to '$found', not to '$library'"; exit 1; }
  rm -rf data
  [ "$("$program" Ada)" = "1: Ada" ] || { echo "$program adds no first object"; exit 1; }
  [ "$("$program" Grace)" = $'1: Ada\n2: Grace' ] || { echo "$program adds no second object"; exit 1; }
  echo "$program: well"
}

"$cmake" -G Ninja -S program -B with_cmake -DCMAKE_PREFIX_PATH="$folder/prefix" >cmake.log
"$cmake" --build with_cmake >>cmake.log
libraries=$(find prefix -name pkgconfig -printf "$folder/%h")
try with_cmake/with_shared "$libraries/libzelta.so.4"
try with_cmake/with_static ""

export PKG_CONFIG_PATH=$libraries/pkgconfig
read -ra options <<<"$CXXFLAGS -std=c++17 program/first.cpp"
read -ra shared <<<"$(pkg-config --cflags --libs zelta)"
read -ra static <<<"$(pkg-config --static --cflags --libs zelta)"
"$CXX" "${options[@]}" "${shared[@]}" -o with_shared
LD_LIBRARY_PATH=$libraries try ./with_shared "$libraries/libzelta.so.4"
"$CXX" "${options[@]}" -Wl,-Bstatic "${static[@]}" -Wl,-Bdynamic -o with_static
try ./with_static ""
