#!/usr/bin/env bash
# Every C++ source is formatted as .clang-format says; what is not is listed, with the command that mends it.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h')
bad=()
for file in "${files[@]}"; do
    [ -f "$file" ] || continue
    clang-format --dry-run -Werror "$file" >/dev/null 2>&1 || bad+=("$file")
done
if [ ${#bad[@]} -gt 0 ]; then
    printf 'not formatted (clang-format -i mends it): %s\n' "${bad[@]}" >&2
    exit 1
fi
echo "format: ${#files[@]} files are as .clang-format says"
