#!/usr/bin/env bash
# Runs every fuzzer for a share of the given time; a finding stops with the input that shows it.
#   scripts/run_fuzzers.sh SECONDS
set -euo pipefail
seconds=${1:?usage: $0 SECONDS}
cd "$(dirname "$0")/.."
. scripts/env.sh
cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" -DVRKFS_SANITIZE=fuzzer \
    -DVRKFS_TESTS=OFF -DVRKFS_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang >/dev/null
cmake --build build/fuzz
mapfile -t fuzzers < <(find build/fuzz -maxdepth 1 -name 'fuzz_*' -type f -perm -u+x | sort)
[ ${#fuzzers[@]} -gt 0 ] || { echo "no fuzzers were built" >&2; exit 1; }
each=$((seconds / ${#fuzzers[@]} + 1))
for fuzzer in "${fuzzers[@]}"; do
    name=$(basename "$fuzzer")
    mkdir -p "build/fuzz/corpus/$name"
    echo "$name: $each s"
    log="build/fuzz/$name.log"
    if ! "$fuzzer" -max_total_time="$each" -rss_limit_mb=4096 -timeout=20 -artifact_prefix="build/fuzz/$name-" \
        -verbosity=0 -print_final_stats=1 "build/fuzz/corpus/$name" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        exit 1
    fi
    grep 'number_of_executed_units' "$log" || true
done
