#!/usr/bin/env bash
# Installs what is missing, builds everything in build/ and runs every test;
# then builds and runs the same suite under AddressSanitizer and
# UndefinedBehaviorSanitizer in build-san/, and runs each libFuzzer harness for
# 30 seconds on its seeds from build-fuzz/ (clang), then smoke-runs the
# benchmarks. Exits non-zero on any
# failure, sanitizer report or fuzz finding.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/deps.sh
ensure_packages $VELTO_PACKAGES

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_TESTS=ON
cmake --build build -j2
(cd build && ctest --output-on-failure -j2)

# Every test, and every program a test starts, stops at its first sanitizer
# report with a failure; leaks count too.
cmake -S . -B build-san -DCMAKE_BUILD_TYPE=Debug -DVELTO_SANITIZE=ON -DVELTO_BUILD_TESTS=ON
cmake --build build-san -j2
(cd build-san &&
    ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --output-on-failure -j2)

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVELTO_FUZZ=ON -DVELTO_BUILD_TESTS=OFF
cmake --build build-fuzz -j2 --target fuzz_record fuzz_xml fuzz_packs fuzz_index fuzz_datagram
fuzz/run.sh -t 30

# The benchmarks' 30-second smoke run: every system starts, is driven and
# reported; no timing is judged here.
./bench.sh --quick
