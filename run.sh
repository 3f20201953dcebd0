#!/usr/bin/env bash
# Installs what is missing, builds, and runs the hub in the foreground in var/,
# which holds the device records and documents in var/DB.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/deps.sh
ensure_packages $VELTO_PACKAGES

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_TESTS=OFF
cmake --build build -j2 --target velto-hub
mkdir -p var/DB
cd var
exec ../build/velto-hub
