#!/usr/bin/env bash
# Regenerates the generated seeds in fuzz/corpus/fuzz_packs and fuzz_datagram
# from the generator target make_corpus (real packets and datagram sequences
# built with the pack kit). The record, document and index seeds are plain
# files kept as committed. Existing seeds of the same names are replaced; other
# files there are left alone.
#
# Usage: fuzz/make_corpus.sh [build-dir]   (default build-fuzz, configured as
# in fuzz/README.md)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
cmake --build "$build" -j2 --target make_corpus
mkdir -p fuzz/corpus/fuzz_packs fuzz/corpus/fuzz_datagram
"$build/fuzz/make_corpus" fuzz/corpus
ls -l fuzz/corpus/fuzz_packs fuzz/corpus/fuzz_datagram
