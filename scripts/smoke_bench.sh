#!/usr/bin/env bash
# Runs every benchmark once, shortly: that they run, not how fast. For figures: BUILD/vrkfs_bench
#   scripts/smoke_bench.sh BUILD
set -euo pipefail
"${1:?usage: $0 BUILD}"/vrkfs_bench --benchmark_min_time=0.01
