#!/usr/bin/env bash
# Builds the project with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DSONDEX_WERROR=ON -DSONDEX_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build -j"$jobs" --output-on-failure
bash scripts/check-package.sh
bash scripts/check-sanitizers.sh
bash scripts/replay-fuzz-corpus.sh
