#!/usr/bin/env bash
# Installs what the build, the tests and the checks use, from Debian's packages. Quiet and quick when all is there.
#   scripts/install_packages.sh build|demo|test|ci
set -euo pipefail

build=(g++ cmake ninja-build ccache libcli11-dev nlohmann-json3-dev
    pkg-config libfuse3-dev fuse3 libjpeg-dev)
test=(libgtest-dev libgmock-dev g++-mingw-w64-i686 binutils-mingw-w64-i686 mingw-w64-tools clang-format python3 netpbm rsync attr)
ci=(clang clang-tidy libclang-rt-14-dev libbenchmark-dev)

packages=("${build[@]}")
case "${1:-build}" in
build) ;;
demo) packages+=(netpbm file) ;;
test) packages+=("${test[@]}") ;;
ci) packages+=("${test[@]}" "${ci[@]}") ;;
*)
    echo "usage: $0 build|demo|test|ci" >&2
    exit 2
    ;;
esac

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "These packages are missing; install them as root and run again: ${missing[*]}" >&2
    exit 1
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
