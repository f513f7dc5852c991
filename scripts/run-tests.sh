#!/usr/bin/env bash
# Everything CI checks: the project built with warnings as errors and every
# test, the installed program and its Debian package, the tests again under
# AddressSanitizer and UndefinedBehaviorSanitizer, and every fuzz corpus
# file through every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DSONDEX_WERROR=ON -DSONDEX_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build -j"$jobs"
# No tests (GoogleTest missing: scripts/install-test-deps.sh) is a failure.
ctest --test-dir build -j"$jobs" --output-on-failure --no-tests=error
bash scripts/check-package.sh
bash scripts/check-sanitizers.sh
bash scripts/replay-fuzz-corpus.sh
