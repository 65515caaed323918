#!/usr/bin/env bash
# Cross-builds vord and its unit tests for aarch64 (Debian's cross toolchain,
# GoogleTest built for aarch64 from /usr/src/googletest) and runs the unit tests
# under user-mode emulation (qemu-user): the statistics block layout, the netlink
# and sock_diag structures, the status text and the probes' arithmetic as an
# arm64 handset computes them.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps g++-aarch64-linux-gnu qemu-user googletest
cd "$top"
out=${ARM64_BUILD_DIR:-$top/build-arm64}
export VORD_ARM64_PREFIX=$out/gtest-prefix

if [ ! -f "$VORD_ARM64_PREFIX/lib/libgtest.a" ]; then
    echo "== GoogleTest for aarch64"
    cmake -S /usr/src/googletest -B "$out/gtest" -DCMAKE_TOOLCHAIN_FILE="$top/scripts/aarch64.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$VORD_ARM64_PREFIX" >/dev/null
    cmake --build "$out/gtest" -j"$(nproc)" >/dev/null
    cmake --install "$out/gtest" >/dev/null
fi

echo "== vord and its unit tests for aarch64"
cmake -S . -B "$out/vord" -DCMAKE_TOOLCHAIN_FILE="$top/scripts/aarch64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORD_BUILD_BENCH=OFF >/dev/null
cmake --build "$out/vord" -j"$(nproc)" --target vord vord_unit_tests
file "$out/vord/bin/vord" | grep -q aarch64

echo "== unit tests under qemu-aarch64"
# Left out, for what the emulator does differently from a kernel: qemu-user runs
# posix_spawn's vfork as a fork, so an exec that fails is not reported back to
# the caller, and it starts and ends threads of its own, which the selection
# engine's thread counts see.
skipped='^(Execnetd\.SplitsAtBlanks|SlsEngineTest\.)'
cd "$out/vord"
ctest -L unit -E "$skipped" --output-on-failure --parallel "$(nproc)"
