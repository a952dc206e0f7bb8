#!/usr/bin/env bash
# Configures and builds Tolvane in ./build (everything it caches stays there).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE="${TOLVANE_BUILD_TYPE:-RelWithDebInfo}" >/dev/null
cmake --build build -j"$(nproc)"
