#!/usr/bin/env bash
# Runs every fuzzer for a share of the given time, or only those named; a finding stops with the input that shows it
# (build/fuzz/FUZZER INPUT runs it again). Seeds are made by the fuzzers themselves; what they find grows build/fuzz/corpus.
#   scripts/run_fuzzers.sh SECONDS [FUZZER...]
set -euo pipefail
seconds=${1:?usage: $0 SECONDS [FUZZER...]}
shift
cd "$(dirname "$0")/.."
. scripts/env.sh
cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" -DVRKFS_SANITIZE=fuzzer \
    -DVRKFS_TESTS=OFF -DVRKFS_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang >/dev/null
cmake --build build/fuzz
fuzzers=("$@")
if [ ${#fuzzers[@]} -eq 0 ]; then
    mapfile -t fuzzers < <(find build/fuzz -maxdepth 1 -name 'fuzz_*' -type f -perm -u+x -printf '%f\n' | sort)
fi
[ ${#fuzzers[@]} -gt 0 ] || { echo "no fuzzers were built" >&2; exit 1; }
each=$((seconds / ${#fuzzers[@]} + 1))
for name in "${fuzzers[@]}"; do
    fuzzer=build/fuzz/$name
    corpus=build/fuzz/corpus/$name
    seeds=build/fuzz/seeds/$name
    rm -rf "$seeds"
    mkdir -p "$corpus" "$seeds"
    VRKFS_FUZZ_SEEDS="$seeds" "$fuzzer" -runs=0 >/dev/null 2>&1
    echo "$name: $each s"
    log="build/fuzz/$name.log"
    # Leaks are the verifier's to find, after each input; the fuzzer's own hunt for them runs every input twice.
    if ! "$fuzzer" -max_total_time="$each" -rss_limit_mb=4096 -timeout=20 -artifact_prefix="build/fuzz/$name-" \
        -len_control=0 -max_len=1024 -detect_leaks=0 -print_final_stats=1 "$corpus" "$seeds" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        exit 1
    fi
    grep 'DONE' "$log" || true
done
