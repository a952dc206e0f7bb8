#!/usr/bin/env bash
# Builds Tolvane with coverage counters in build-coverage/ (never the normal build folder), runs the
# whole test suite there and prints line and branch coverage of src/. Arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
./scripts/setup.sh --test --coverage

# Benchmarks are not tests: they would only add code the suite never runs.
cmake -S . -B build-coverage -DCMAKE_BUILD_TYPE=Debug -DTOLVANE_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
cmake --build build-coverage -j"$(nproc)"
# Counters from an earlier run would add to this one's.
find build-coverage -name '*.gcda' -delete
(cd build-coverage && ctest -j"$(nproc)" "$@") || echo "coverage: some tests failed; the figures below count what ran" >&2

# Only src/ (inline code of its headers runs in the tests' objects too); moc output and CMake's
# compiler checks are not Tolvane's code. The branches the compiler adds for exceptions it may throw
# are not decisions in the code, so they are left out of the branch figure.
gcovr --root "$root" --filter "$root/src/" --exclude '.*_autogen/.*' --exclude-directories '.*/CMakeFiles/[0-9.]+' \
  --object-directory build-coverage --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
  -j"$(nproc)" --print-summary --txt build-coverage/coverage.txt build-coverage | tail -n 3
echo "coverage: per-file report in build-coverage/coverage.txt"
