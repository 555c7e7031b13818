#!/usr/bin/env bash
# Records the library's ABI on purpose: rebuilds the default preset, then
# rewrites the abidiff baseline and the Debian symbols file from the library.
# Review the diff of both before committing.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default -j "${JOBS:-$(nproc)}" --target kerm_util
lib=build/default/libkerm_util.so
abidw --no-corpus-path --no-show-locs --headers-dir include "$lib" > tests/abi/baseline/libkerm_util.so.1.abi
version=$(sed -n 's/^#define KERM_UTIL_VERSION_STRING "\(.*\)"/\1/p' include/kerm_version.h)
{
  echo "libkerm_util.so.1 libkerm-util1 #MINVER#"
  echo "* Build-Depends-Package: libkerm-util-dev"
  echo " KERM_UTIL_1@KERM_UTIL_1 $version"
  nm -D --defined-only "$lib" | awk '$3 ~ /@@KERM_UTIL_1$/ {sub(/@@/, "@", $3); print " " $3 " '"$version"'"}' | sort
} > debian/libkerm-util1.symbols
echo "updated tests/abi/baseline/libkerm_util.so.1.abi and debian/libkerm-util1.symbols"
