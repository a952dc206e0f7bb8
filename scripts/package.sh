#!/usr/bin/env bash
# Builds the Debian package tolvane_<version>_amd64.deb into OUTPUT_DIR (default: build/package)
# and checks it: lintian must report no errors, the AppStream metainfo must validate.
# Usage: scripts/package.sh [OUTPUT_DIR] [-DTOLVANE_HOMEPAGE=https://…]
set -euo pipefail
cd "$(dirname "$0")/.."
out=build/package
cmake_args=()
for arg in "$@"; do
  case "$arg" in
    -D*) cmake_args+=("$arg") ;;
    *) out=$arg ;;
  esac
done
./scripts/setup.sh --package
if [ ${#cmake_args[@]} -gt 0 ]; then
  cmake -S . -B build "${cmake_args[@]}" >/dev/null
fi
./scripts/build.sh
mkdir -p "$out"
out=$(cd "$out" && pwd)
(cd build && cpack -B "$out" >/dev/null)
deb=$(ls -t "$out"/tolvane_*_amd64.deb | head -n1)

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$deb" "$root"
appstreamcli validate --no-net "$root"/usr/share/metainfo/*.metainfo.xml
# Errors fail the package; warnings are printed for whoever reads them.
lintian --fail-on error "$deb" || { echo "package: lintian reports errors" >&2; exit 1; }
echo "package: $deb"
