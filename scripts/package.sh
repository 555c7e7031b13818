#!/usr/bin/env bash
# Builds the Debian packages from a copy of the tree, checks them with
# lintian (errors and warnings fail), unpacks them into a scratch root and
# builds and runs a C consumer against the installed -dev package.
# usage: scripts/package.sh [OUTDIR]   (default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(mkdir -p "${1:-build/package}" && cd "${1:-build/package}" && pwd)
rm -rf "${out:?}"/*
src="$out/kerm-util-$(sed -n 's/^#define KERM_UTIL_VERSION_STRING "\(.*\)"/\1/p' include/kerm_version.h)"
mkdir -p "$src"
tar --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -xf -

echo "--- dpkg-buildpackage"
(cd "$src" && DEB_BUILD_OPTIONS="parallel=${JOBS:-$(nproc)}" dpkg-buildpackage -b -us -uc) \
  > "$out/build.log" 2>&1 || { tail -n 80 "$out/build.log"; echo "package build failed"; exit 1; }
ls "$out"/*.deb | sed 's|.*/||'

echo "--- lintian"
lintian --fail-on error,warning --suppress-tags bad-distribution-in-changes-file "$out"/*.changes

echo "--- installed into a scratch root"
root="$out/root"
for deb in "$out"/*.deb; do dpkg-deb -x "$deb" "$root"; done
libdir=$(dirname "$(find "$root" -name kerm_util.pc | head -1)")/..
libdir=$(cd "$libdir" && pwd)
if readelf -d "$libdir"/libkerm_util.so.1 | grep -qE 'RUNPATH|RPATH'; then
  echo "packaged library carries a RUNPATH"; exit 1
fi
test -s "$root/usr/share/man/man1/kerm.1.gz"
test -s "$root/usr/share/bash-completion/completions/kerm"
test -s "$root/usr/share/doc/libkerm-util-doc/html/index.html"
LD_LIBRARY_PATH="$libdir" "$root/usr/bin/kerm" --version

export PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR=
# The .pc file finds its prefix from its own place, so the scratch root works
# as it is.
cc -std=c99 -Wall -Werror -o "$out/consumer" tests/abi/consumer.c $(pkg-config --cflags --libs kerm_util)
LD_LIBRARY_PATH="$libdir" "$out/consumer"
mkdir -p "$out/cm"
cat > "$out/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(kerm_util REQUIRED)
add_executable(consumer_cm $PWD/tests/abi/consumer.c flat.c)
target_link_libraries(consumer_cm PRIVATE kerm_util::kerm_util)
CM
# cJSON's own folder comes with the package, as with pkg-config.
printf '#include <cJSON.h>\nint kerm_flat(void) { return cJSON_IsNull(NULL); }\n' > "$out/cm/flat.c"
cmake -S "$out/cm" -B "$out/cm/build" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$out/cm/build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$out/cm/build/consumer_cm"
echo "packages ok"
