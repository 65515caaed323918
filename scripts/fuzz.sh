#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS (30 by
# default, so that all of them together stay within about five minutes), each
# with its own corpus under build-fuzz/corpus. Runs every target, then exits
# non-zero when any reported a finding (the input is left in build-fuzz/) or the
# build failed.
set -euo pipefail

cd "$(dirname "$0")/.."
. scripts/deps.sh

probe_fuzzer() {
    local dir
    dir=$(mktemp -d)
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' \
        > "$dir/probe.cpp"
    clang++ -fsanitize=fuzzer,address,undefined "$dir/probe.cpp" -o "$dir/probe" >/dev/null 2>&1
    local rc=$?
    rm -rf "$dir"
    return $rc
}

if ! command -v clang++ >/dev/null 2>&1 || ! probe_fuzzer; then
    ensure_deps clang
    if ! probe_fuzzer; then
        # libFuzzer's runtime lives in a separate package on some releases.
        version=$(clang++ --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n1)
        ensure_deps "libclang-rt-${version}-dev"
    fi
fi

targets=(nl80211_fuzz sockdiag_fuzz control_record_fuzz config_fuzz uid_list_fuzz
         iface_params_fuzz stats_block_fuzz voip_state_fuzz rtnetlink_fuzz)
seconds=${FUZZ_SECONDS:-30}

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DVORD_FUZZ=ON -DVORD_BUILD_TESTS=OFF \
    -DVORD_BUILD_BENCH=OFF
cmake --build build-fuzz -j2 --target "${targets[@]}"

failed=()
for target in "${targets[@]}"; do
    corpus=build-fuzz/corpus/${target%_fuzz}
    mkdir -p "$corpus"
    extra=()
    case "$target" in
        config_fuzz) cp etc/vord.conf "$corpus/sample.conf" ;;
        control_record_fuzz) extra=(-max_len=8192) ;;
        stats_block_fuzz) extra=(-max_len=20504) ;;  # a header and a whole block
    esac
    echo "== $target (${seconds} s)"
    if ! "build-fuzz/bin/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="build-fuzz/$target-" "${extra[@]}" "$corpus"; then
        failed+=("$target")
    fi
done

if ((${#failed[@]})); then
    echo "fuzz.sh: findings in: ${failed[*]} (inputs in build-fuzz/)" >&2
    exit 1
fi
