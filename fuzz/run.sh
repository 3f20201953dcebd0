#!/usr/bin/env bash
# Runs libFuzzer harnesses for a bounded time each, one after another, on a
# temporary copy of their committed seeds (fuzz/corpus/<harness>/), so the
# repository is never modified. Exits non-zero on the first finding, after
# printing the report and copying the crashing input to
# <build>/fuzz-findings/<harness>/.
#
# Usage: fuzz/run.sh [-t seconds] [-b build-dir] [harness ...]
#   defaults: 30 seconds, build-fuzz, every harness of the list below.
set -euo pipefail
cd "$(dirname "$0")/.."

HARNESSES="fuzz_record fuzz_xml fuzz_packs fuzz_index fuzz_datagram"
seconds=30
build=build-fuzz
while getopts "t:b:" opt; do
    case $opt in
        t) seconds=$OPTARG ;;
        b) build=$OPTARG ;;
        *) echo "usage: $0 [-t seconds] [-b build-dir] [harness ...]" >&2; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] && HARNESSES="$*"

# Per-harness options: documents get room for more than one 8192-byte read.
# The datagram harness keeps the hub's state from input to input, so nearly
# every input allocates more than it frees; a leak search after each of those
# would take most of a short run. Anything it loses for good is still reported
# by the leak check at the end of the run (which fails it).
options_for() {
    case $1 in
        fuzz_xml) echo "-max_len=12000 -dict=fuzz/dict/fuzz_xml.dict" ;;
        fuzz_record) echo "-max_len=4096 -dict=fuzz/dict/fuzz_record.dict" ;;
        fuzz_index) echo "-max_len=1024" ;;
        fuzz_datagram) echo "-max_len=4096 -detect_leaks=0" ;;
        *) echo "-max_len=4096" ;;
    esac
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The harnesses' scratch files go there too (memory-backed when possible).
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    scratch=$(mktemp -d /dev/shm/velto-fuzz-run-XXXXXX)
else
    scratch="$work/scratch"
    mkdir -p "$scratch"
fi
trap 'rm -rf "$work" "$scratch"' EXIT
export VELTO_FUZZ_TMP="$scratch"

for h in $HARNESSES; do
    bin="$build/fuzz/$h"
    if [ ! -x "$bin" ]; then
        echo "fuzz: $bin is not built" >&2
        exit 1
    fi
    mkdir -p "$work/$h/corpus" "$work/$h/artifacts"
    cp -r "fuzz/corpus/$h/." "$work/$h/corpus/"
    echo "fuzz: $h for ${seconds}s"
    rc=0
    # The harnesses drop the diagnostic lines of the code under test; stdout
    # is closed as well (-close_fd_mask=1).
    # shellcheck disable=SC2046
    "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1 \
        -close_fd_mask=1 -artifact_prefix="$work/$h/artifacts/" $(options_for "$h") \
        "$work/$h/corpus" > "$work/$h/log" 2>&1 || rc=$?
    grep -E '^#[0-9]+[[:space:]]+DONE|^stat::(number_of_executed_units|average_exec_per_sec)' "$work/$h/log" || true
    if [ $rc -ne 0 ] || [ -n "$(ls -A "$work/$h/artifacts")" ]; then
        tail -n 60 "$work/$h/log" >&2
        mkdir -p "$build/fuzz-findings/$h"
        cp -r "$work/$h/artifacts/." "$build/fuzz-findings/$h/"
        echo "fuzz: $h FAILED (exit $rc); inputs kept in $build/fuzz-findings/$h/" >&2
        exit 1
    fi
done
echo "fuzz: all harnesses clean"
