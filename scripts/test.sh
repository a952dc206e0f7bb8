#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite through CTest. Each test that
# needs a display gets its own Xvfb; each that needs sound starts its own PulseAudio.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh --test
./scripts/build.sh
cd build
ctest --output-on-failure -j"$(nproc)" "$@"
