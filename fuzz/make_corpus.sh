#!/usr/bin/env bash
# Regenerates the committed seed corpora in fuzz/corpus/ from the generator
# target make_corpus (real packets, record files and documents). Existing seeds
# of the same names are replaced; other files there are left alone.
#
# Usage: fuzz/make_corpus.sh [build-dir]   (default build-fuzz, configured as
# in fuzz/README.md)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
cmake --build "$build" -j2 --target make_corpus
mkdir -p fuzz/corpus/fuzz_packs fuzz/corpus/fuzz_record fuzz/corpus/fuzz_xml fuzz/corpus/fuzz_datagram fuzz/corpus/fuzz_index
"$build/fuzz/make_corpus" fuzz/corpus
ls -l fuzz/corpus/*
