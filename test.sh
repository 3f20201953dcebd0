#!/usr/bin/env bash
# Installs what is missing, builds everything in build/ and runs every test.
# Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/deps.sh
ensure_packages $VELTO_PACKAGES

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2
(cd build && ctest --output-on-failure -j2)
