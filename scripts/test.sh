#!/usr/bin/env bash
# Installs whatever is missing (Debian, as root), builds, and runs every test:
# first the release build, then the AddressSanitizer/UBSan build.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCPLOGIC_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"
