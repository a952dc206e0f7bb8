#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite through CTest. Each test that
# needs a display gets its own Xvfb; each that needs sound starts its own PulseAudio.
#
#   scripts/test.sh             the suite in build/, then again built with AddressSanitizer and
#                               UndefinedBehaviorSanitizer in build-asan/ (what CI runs)
#   scripts/test.sh --fast      the suite in build/ only
#   scripts/test.sh --sanitize  the suite under address,undefined (build-asan/) and under
#                               ThreadSanitizer (build-tsan/)
# Other arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

passes=(normal address,undefined)
case "${1:-}" in
  --fast) passes=(normal); shift ;;
  --sanitize) passes=(address,undefined thread); shift ;;
esac

./scripts/setup.sh --test

# A sanitized build in a folder of its own: no benchmarks, and -O1 -g1, which builds and runs much
# faster than -O0 -g and still gives reports with file and line.
sanitized_build() {
  local dir=$1 kind=$2
  cmake -S . -B "$dir" -DTOLVANE_SANITIZE="$kind" -DTOLVANE_BUILD_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

failed=()
for pass in "${passes[@]}"; do
  case "$pass" in
    normal) dir=build; ./scripts/build.sh ;;
    address,undefined) dir=build-asan; sanitized_build "$dir" "$pass" ;;
    thread) dir=build-tsan; sanitized_build "$dir" "$pass" ;;
  esac
  echo "test: the suite in $dir/"
  if ! (cd "$dir" && ctest --output-on-failure -j"$(nproc)" "$@"); then
    failed+=("$dir")
    # The checks that failed, after the long outputs above, where they are found at once.
    echo "test: failed checks in $dir/:"
    grep -h -E -A3 '^(FAIL!|run-test: )' "$dir/Testing/Temporary/LastTest.log" || true
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "test: failures in ${failed[*]}" >&2
  exit 1
fi
