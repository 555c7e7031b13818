#!/usr/bin/env bash
# Fails when the library exports a function or object that no public header
# declares (C++ runtime, template or internal symbols leaking out).
set -euo pipefail
nm=$1 cc=$2 lib=$3 inc=$4 extra_names=${5:-}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
for h in "$inc"/*.h; do echo "#include \"$(basename "$h")\""; done > "$tmp/all.c"
# Every identifier the headers declare, as preprocessed C.
"$cc" -E -P -I"$inc" "$tmp/all.c" | grep -oE '[A-Za-z_][A-Za-z0-9_]*' | sort -u > "$tmp/declared"
# Names re-exported from the dependencies the library stands in for.
if [ -n "$extra_names" ]; then grep -v "^#" "$extra_names" >> "$tmp/declared" || true; fi
sort -u -o "$tmp/declared" "$tmp/declared"
"$nm" -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVWiu]$/ {print $3}' | sed 's/@.*//' | sort -u > "$tmp/exported"
extra=$(comm -23 "$tmp/exported" "$tmp/declared")
if [ -n "$extra" ]; then
  echo "exported but not part of the API:"; echo "$extra" | sed 's/^/  /'; exit 1
fi
echo "exports ok: $(wc -l < "$tmp/exported") symbols"
