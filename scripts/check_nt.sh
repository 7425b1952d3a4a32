#!/usr/bin/env bash
# Builds vrkfs.sys with the cross compiler and looks at what came out. It cannot be run here; that it compiles against
# the kernel's headers and links against nothing but the kernel keeps the driver honest.
#   scripts/check_nt.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/nt
if [ ! -f $build/build.ninja ]; then
    cmake -S . -B $build -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/nt-toolchain.cmake -DCMAKE_BUILD_TYPE=None >/dev/null
fi
cmake --build $build
scripts/check_nt_image.py $build/vrkfs.sys include/vrkfs/messages.def $build
