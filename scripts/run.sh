#!/usr/bin/env bash
# Installs what is missing, builds, and runs Tolvane (arguments are passed on).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
./scripts/build.sh
exec ./build/tolvane "$@"
