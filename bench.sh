#!/usr/bin/env bash
# Benchmarks. Installs the Debian packages it needs when missing (apt-get),
# builds Release in build-bench/ and runs everything inside a private network
# namespace (the hub joins a multicast group; all traffic stays on 127.0.0.1).
#
#   ./bench.sh           full run: 3 rounds, scale figures with 10,000 devices
#   ./bench.sh --quick   short smoke version (about 30 s once built); no timing
#                        is asserted, exit status 0 when everything ran
#
# Prints the result tables and writes latest.md, latest.csv and latest.png to
# bench/results/ (the quick run to build-bench/quick-results/, so that a smoke
# run leaves the committed figures alone). Needs root (for the namespace and
# apt-get).
set -euo pipefail
cd "$(dirname "$0")"
. scripts/deps.sh
. scripts/bench_deps.sh
ensure_packages $VELTO_PACKAGES $BENCH_PACKAGES

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCH=ON >/dev/null
cmake --build build-bench -j2 --target velto-bench velto-transfer bridge-bench velto-mqtt

mode=()
out="$PWD/bench/results"
if [ "${1:-}" = "--quick" ]; then
    mode=(--quick)
    out="$PWD/build-bench/quick-results"
fi
mkdir -p "$out"
rm -f "$out/transfer.txt" "$out/bridge.txt"
tests/netns.sh "$PWD/build-bench/velto-bench" --bin-dir "$PWD/build-bench" \
    --out "$out" ${mode[@]+"${mode[@]}"}

# Transfer figures (long messages over clean and lossy links, the device list
# in large homes); their TRANSFER and DEVLIST lines also go to transfer.txt.
counts=1000,5000,10000
[ ${#mode[@]} -gt 0 ] && counts=1000
echo "Transfers and the device list:"
tests/netns.sh "$PWD/build-bench/velto-transfer" --bin-dir "$PWD/build-bench" \
    --work "$PWD/build-bench/transfer-work" --counts "$counts" |
    awk -v f="$out/transfer.txt" '{ print; fflush() } /^(TRANSFER|DEVLIST) / { print > f }'

# The MQTT bridge: a device's notification to an MQTT subscriber (p50/p99,
# sustained rate) beside mosquitto's own publish-to-subscribe latency, and the
# time to discover a home of 1,000 devices; RESULT lines also go to bridge.txt.
bridge_args=()
[ ${#mode[@]} -gt 0 ] && bridge_args=(--samples 200 --devices 100)
echo "MQTT bridge:"
tests/netns.sh "$PWD/build-bench/bridge-bench" --hub-bin "$PWD/build-bench/velto-hub" \
    --bridge-bin "$PWD/build-bench/velto-mqtt" --examples "$PWD/examples" \
    ${bridge_args[@]+"${bridge_args[@]}"} |
    awk -v f="$out/bridge.txt" '{ print; fflush() } /^RESULT / { print > f }'
