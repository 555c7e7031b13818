#!/usr/bin/env bash
# Unpacks the armhf builds of the library's dependencies into a sysroot folder
# for the cross build. Uses a private apt state (its own package lists and
# cache) so the machine's dpkg architectures and installed packages are left
# as they are: nothing is installed, the .debs are only extracted.
# Idempotent: a stamp records the package set; a matching stamp skips all work.
#
# usage: scripts/armhf-sysroot.sh [SYSROOT]   (default build/armhf-sysroot)
set -euo pipefail
cd "$(dirname "$0")/.."
sysroot=${1:-${KERM_ARMHF_SYSROOT:-build/armhf-sysroot}}
mkdir -p "$sysroot"
sysroot=$(cd "$sysroot" && pwd)

PACKAGES=(libcjson1 libcjson-dev libuuid1 uuid-dev libgtest-dev libgmock-dev)
stamp="$sysroot/.kerm-sysroot"
want="packages: ${PACKAGES[*]}"
if [ -f "$stamp" ] && [ "$(head -1 "$stamp")" = "$want" ]; then
  echo "armhf-sysroot: up to date ($sysroot)"
  exit 0
fi

apt_dir="$sysroot/.apt"
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs"
: > "$apt_dir/status"
APT=(apt-get -q
  -o "Dir::State::Lists=$apt_dir/lists"
  -o "Dir::Cache=$apt_dir/cache"
  -o "Dir::State::status=$apt_dir/status"
  -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
  -o "Debug::NoLocking=1")
if [ "$(id -u)" -eq 0 ]; then APT+=(-o "APT::Sandbox::User=root"); fi

# A suite whose index fails to fetch (a mirror mid-sync) is not fatal as long
# as the packages themselves can be found; the download below decides.
"${APT[@]}" update >"$apt_dir/update.log" 2>&1 ||
  echo "armhf-sysroot: apt-get update reported errors (see $apt_dir/update.log); trying the download"
rm -f "$apt_dir"/debs/*.deb
(cd "$apt_dir/debs" && "${APT[@]}" download "${PACKAGES[@]}") || {
  cat "$apt_dir/update.log" >&2
  echo "armhf-sysroot: download failed" >&2
  exit 1
}

for deb in "$apt_dir"/debs/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
{
  echo "$want"
  for deb in "$apt_dir"/debs/*.deb; do basename "$deb"; done
} > "$stamp"
echo "armhf-sysroot: ready ($sysroot)"
