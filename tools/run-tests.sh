#!/usr/bin/env bash
# Builds wzrldap with g++ and warnings as errors and runs the whole test suite, after
# installing whatever Debian packages are missing. Usage: bash tools/run-tests.sh [BUILD_DIR]
# (default: build/ in the source tree). WZR_JOBS sets the parallelism (default: all cores).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build}
JOBS=${WZR_JOBS:-$(nproc)}

bash "$ROOT/tools/install-deps.sh"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
    -DWZR_WERROR=ON -DWZR_TESTS=ON -DWZR_BENCH=ON
cmake --build "$BUILD" -j "$JOBS"
cd "$BUILD"
ctest --output-on-failure -j "$JOBS"
