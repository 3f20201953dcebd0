#!/bin/sh
# The MQTT bridge's figures, in a private network namespace: builds the
# benchmark (Release, in build-bench/) and runs it. Extra arguments go to
# bridge-bench (--samples N, --devices N, --rate-ms MS).
set -e
root=$(cd "$(dirname "$0")/../.." && pwd)
cmake -S "$root" -B "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DVELTO_BUILD_BENCH=ON -DVELTO_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build-bench" -j2 --target bridge-bench velto-hub velto-mqtt >/dev/null
b="$root/build-bench"
exec "$root/tests/netns.sh" "$b/bridge-bench" --hub-bin "$b/velto-hub" --bridge-bin "$b/velto-mqtt" \
    --examples "$root/examples" "$@"
