#!/usr/bin/env bash
# Runs one test binary in a world of its own: fresh settings and data folders and, when asked with
# --xvfb, a private X server; with --dbus, a private session bus. Everything it starts is stopped
# when the test ends. With --sanitize=KIND (a sanitized build), the test and every program it starts
# run with that sanitizer's options and suppressions, and any report one of them writes fails the test.
set -u
use_xvfb=0 use_dbus=0 sanitize="" preload=""
while true; do
  case "${1:-}" in
    --xvfb) use_xvfb=1; shift ;;
    --dbus) use_dbus=1; shift ;;
    --sanitize=*) sanitize=${1#--sanitize=}; shift ;;
    --preload=*) preload=${1#--preload=}; shift ;;
    *) break ;;
  esac
done

# Without a sandbox every path below would be one of the machine's own.
sandbox=$(mktemp -d "${TMPDIR:-/tmp}/tolvane-test.XXXXXX") && [ -d "$sandbox" ] || { echo "run-test: no sandbox folder" >&2; exit 1; }
export XDG_CONFIG_HOME="$sandbox/config" XDG_DATA_HOME="$sandbox/data" XDG_CACHE_HOME="$sandbox/cache"
export XDG_RUNTIME_DIR="$sandbox/runtime" HOME="$sandbox/home" TMPDIR="$sandbox/tmp"
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME" "$XDG_RUNTIME_DIR" "$HOME" "$TMPDIR"
chmod 700 "$XDG_RUNTIME_DIR"
export TOLVANE_TEST_SANDBOX="$sandbox"

# Reports go to files rather than stderr so that those of programs whose output a test reads, or
# whose exit status it does not look at, are not lost.
supp="$(cd "$(dirname "$0")/../sanitizers" && pwd)"
reports="$sandbox/sanitizer"
case "$sanitize" in
  "") ;;
  address,undefined)
    mkdir -p "$reports"
    export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:log_path=$reports/report"
    export LSAN_OPTIONS="suppressions=$supp/lsan.supp:print_suppressions=0"
    export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:suppressions=$supp/ubsan.supp:log_path=$reports/report" ;;
  thread)
    # Qt's QProcess forks from a process with threads; the child only execs, so that is safe.
    mkdir -p "$reports"
    export TSAN_OPTIONS="halt_on_error=1:die_after_fork=0:second_deadlock_stack=1:suppressions=$supp/tsan.supp:log_path=$reports/report"
    # QProcess's children start as forks TSan can follow (tests/sanitizers/vfork-as-fork.cpp).
    [ -n "$preload" ] && export LD_PRELOAD="$preload${LD_PRELOAD:+:$LD_PRELOAD}" ;;
  *) echo "run-test: unknown sanitizer '$sanitize' (address,undefined or thread)" >&2; exit 1 ;;
esac

xvfb_pid="" dbus_pid=""
cleanup() {
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null && wait "$xvfb_pid" 2>/dev/null
  [ -n "$dbus_pid" ] && kill "$dbus_pid" 2>/dev/null && wait "$dbus_pid" 2>/dev/null
  rm -rf "$sandbox"
}
trap cleanup EXIT

if [ "$use_xvfb" = 1 ]; then
  command -v Xvfb >/dev/null || { echo "run-test: Xvfb is missing (package xvfb; scripts/setup.sh --test installs it)" >&2; exit 1; }
  exec 3> "$sandbox/display"
  Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset >"$sandbox/xvfb.log" 2>&1 &
  xvfb_pid=$!
  for _ in $(seq 1 100); do
    [ -s "$sandbox/display" ] && break
    sleep 0.05
  done
  exec 3>&-
  num=$(tr -d '\n' < "$sandbox/display")
  [ -n "$num" ] || { echo "run-test: Xvfb did not start" >&2; cat "$sandbox/xvfb.log" >&2; exit 1; }
  export DISPLAY=":$num" QT_QPA_PLATFORM=xcb
else
  unset DISPLAY WAYLAND_DISPLAY
  export QT_QPA_PLATFORM=offscreen
fi

if [ "$use_dbus" = 1 ]; then
  command -v dbus-daemon >/dev/null || { echo "run-test: dbus-daemon is missing (package dbus-daemon)" >&2; exit 1; }
  bus="$sandbox/session-bus"
  dbus-daemon --session --nofork --nopidfile --address="unix:path=$bus" >"$sandbox/dbus.log" 2>&1 &
  dbus_pid=$!
  for _ in $(seq 1 100); do
    [ -S "$bus" ] && break
    sleep 0.05
  done
  [ -S "$bus" ] || { echo "run-test: dbus-daemon did not start" >&2; cat "$sandbox/dbus.log" >&2; exit 1; }
  export DBUS_SESSION_BUS_ADDRESS="unix:path=$bus"
else
  # Never the machine's own session bus: a tray or service there would change what tests see.
  export DBUS_SESSION_BUS_ADDRESS="unix:path=$sandbox/no-session-bus"
fi

# The test runs in a process group of its own: what a test that died (a sanitizer ends it at once)
# leaves behind, its PulseAudio or sway, ends with it instead of keeping ctest waiting on its output.
set -m
"$@" &
test_pid=$!
set +m
wait "$test_pid"
status=$?
kill -- -"$test_pid" 2>/dev/null
if [ -n "$sanitize" ] && [ -n "$(ls -A "$reports")" ]; then
  for report in "$reports"/*; do
    echo "run-test: sanitizer report $(basename "$report"):" >&2
    cat "$report" >&2
  done
  [ "$status" = 0 ] && status=1
fi
exit "$status"
