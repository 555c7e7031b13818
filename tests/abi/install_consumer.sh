#!/usr/bin/env bash
# Installs the built tree into a scratch prefix and builds a C consumer through
# pkg-config and through find_package, then runs both.
set -euo pipefail
build=$1 work=$2 src=$3 cc=$4
rm -rf "$work"; mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name kerm_util.pc -printf '%h\n' | head -1)
export PKG_CONFIG_PATH="$libdir"
"$cc" -std=c99 -Wall -Werror -o "$work/consumer" "$src/consumer.c" $(pkg-config --cflags --libs kerm_util)
LD_LIBRARY_PATH="$(dirname "$libdir")" "$work/consumer"
# A plain -lkerm_util, no pkg-config: the link name alone brings cJSON and libuuid.
"$cc" -std=c99 -Wall -Werror -o "$work/consumer_plain" "$src/consumer.c" -I"$work/prefix/include" \
  -L"$(dirname "$libdir")" -lkerm_util
LD_LIBRARY_PATH="$(dirname "$libdir")" "$work/consumer_plain"
mkdir -p "$work/cm"
cat > "$work/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(kerm_util REQUIRED)
add_executable(consumer_cm $src/consumer.c)
target_link_libraries(consumer_cm PRIVATE kerm_util::kerm_util)
CM
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cm/build" >/dev/null
LD_LIBRARY_PATH="$(dirname "$libdir")" "$work/cm/build/consumer_cm"
echo "install consumer ok"
