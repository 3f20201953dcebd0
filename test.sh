#!/usr/bin/env bash
# Installs what is missing, builds everything in build/ and runs every test;
# then builds and runs the same suite under AddressSanitizer and
# UndefinedBehaviorSanitizer in build-san/, and runs each libFuzzer harness for
# 30 seconds on its seeds from build-fuzz/ (clang). Exits non-zero on any
# failure, sanitizer report or fuzz finding.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/deps.sh
ensure_packages $VELTO_PACKAGES

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2
(cd build && ctest --output-on-failure -j2)

# The sanitizer options of the tests are set by CMake (tests/CMakeLists.txt).
cmake -S . -B build-san -DCMAKE_BUILD_TYPE=Debug -DVELTO_SANITIZE=ON
cmake --build build-san -j2
(cd build-san && ctest --output-on-failure -j2)

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVELTO_FUZZ=ON -DVELTO_BUILD_TESTS=OFF
cmake --build build-fuzz -j2 --target fuzz_record fuzz_xml fuzz_packs
fuzz/run.sh -t 30
