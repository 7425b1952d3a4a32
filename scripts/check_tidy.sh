#!/usr/bin/env bash
# clang-tidy over every source of a build made with clang (its compile commands name the files and flags).
#   scripts/check_tidy.sh BUILD [FILE...]
set -euo pipefail
build=${1:?usage: $0 BUILD [FILE...]}
shift
cd "$(dirname "$0")/.."
if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files --cached --others --exclude-standard -- \
        'driver/*.cpp' 'board/*.cpp' 'host/*.cpp' 'nt/*.cpp' 'client/*.cpp' 'examples/*.cpp' 'tool/*.cpp' \
        'link/*.cpp' 'mount/*.cpp' 'service/*.cpp' | grep -v '^driver/nt_home/\|_nt\.cpp$')
fi
printf '%s\0' "${files[@]}" | xargs -0 -n 4 -P "$(nproc)" clang-tidy -p "$build" --quiet --warnings-as-errors='*' 2>/dev/null
echo "tidy: ${#files[@]} files"
