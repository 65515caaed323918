#!/usr/bin/env bash
# Builds vord and runs every test suite: unit, integration (the real daemon in a
# sandbox root) and end-to-end (network namespaces, as root; skipped otherwise).
#
#   scripts/test.sh                       # build/ with the default flags
#   BUILD_DIR=build-tsan VORD_CMAKE_ARGS=-DVORD_SANITIZE=thread scripts/test.sh
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps

build=${BUILD_DIR:-$top/build}
case "$build" in /*) ;; *) build="$top/$build" ;; esac
# shellcheck disable=SC2086
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${VORD_CMAKE_ARGS:-} >/dev/null
cmake --build "$build" -j"$(nproc)"

export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
cd "$build"
ctest --output-on-failure --parallel "$(nproc)"
