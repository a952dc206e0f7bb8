#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang in ./build-fuzz and runs each for SECONDS (default
# 60) from its seed corpus fuzz/corpus/<target>/, working on a copy in build-fuzz/corpus/<target>/.
# A crash keeps its input in build-fuzz/crashes/<target>/ and makes the script fail at the end.
#
#   scripts/fuzz.sh [SECONDS] [--only TARGET]... [--update-corpus] [--no-build]
#
# --only runs just the named targets (e.g. --only ModelArchive). --update-corpus merges the inputs
# that added coverage back into the committed seed corpus; without it fuzz/corpus/ is never written.
# --no-build runs the targets as last built.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
only=()
update=0
build=1
while [ $# -gt 0 ]; do
  case "$1" in
    --only) only+=("$2"); shift ;;
    --update-corpus) update=1 ;;
    --no-build) build=0 ;;
    [0-9]*) seconds=$1 ;;
    *) echo "fuzz: unknown option $1 (use SECONDS, --only TARGET, --update-corpus)" >&2; exit 2 ;;
  esac
  shift
done

if [ "$build" = 1 ]; then
  scripts/setup.sh --fuzz
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DTOLVANE_FUZZ=ON -DTOLVANE_BUILD_TESTS=OFF \
    -DTOLVANE_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build-fuzz --target tolvane_fuzzers -j"$(nproc)"
fi

targets=(ModelArchive AudioFile Preferences TranscriptStore Snippets ChatAnswer ModelCatalog TranscriptionAnswer
         ReleaseFeed PronouncingDictionary)
[ ${#only[@]} -gt 0 ] && targets=("${only[@]}")

# Sanitizer reports stop the run; leaks count as faults too, but for those in system libraries that
# fuzz/lsan.supp lists with its reason.
export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:allocator_may_return_null=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export LSAN_OPTIONS=suppressions=$PWD/fuzz/lsan.supp:print_suppressions=0
failed=()
summary=()
for t in "${targets[@]}"; do
  binary=build-fuzz/fuzz/${t}Fuzzer
  [ -x "$binary" ] || { echo "fuzz: no target $t" >&2; exit 2; }
  work=build-fuzz/corpus/$t crashes=build-fuzz/crashes/$t scratch=build-fuzz/scratch/$t
  rm -rf "$work" "$scratch"
  mkdir -p "$work" "$crashes" "$scratch/tmp" "$scratch/data" "$scratch/config"
  cp fuzz/corpus/"$t"/* "$work"/ 2>/dev/null || true
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$PWD/$crashes/")
  case "$t" in
    ModelArchive|AudioFile) options+=(-max_len=65536) ;;
    Preferences) options+=(-dict=fuzz/ini.dict) ;;
    PronouncingDictionary) ;;
    *) options+=(-dict=fuzz/json.dict) ;;
  esac
  echo "fuzz: $t for $seconds s"
  log=build-fuzz/$t.log
  # The targets' files (scratch folders, settings, the diagnostic log) stay under build-fuzz/.
  if TMPDIR=$PWD/$scratch/tmp XDG_DATA_HOME=$PWD/$scratch/data XDG_CONFIG_HOME=$PWD/$scratch/config \
       "$binary" "${options[@]}" "$work" >"$log" 2>&1; then
    result=ok
  else
    result="CRASH (see $log and $crashes/)"
    failed+=("$t")
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1 || echo 'cov: ?')
  summary+=("$(printf '%-20s %10s runs  %-22s %s' "$t" "$runs" "$cov" "$result")")
  if [ "$update" = 1 ]; then
    "$binary" -merge=1 -max_len=65536 fuzz/corpus/"$t" "$work" >>"$log" 2>&1
  fi
done

printf '%s\n' "${summary[@]}"
[ ${#failed[@]} -eq 0 ] || { echo "fuzz: crashes in ${failed[*]}" >&2; exit 1; }
