#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS (30 by
# default), each with a corpus directory of its own. Exits non-zero when the
# build fails or any target reports a finding.
set -euo pipefail

targets=(nl80211_fuzz sockdiag_fuzz)
seconds=${FUZZ_SECONDS:-30}

cd "$(dirname "$0")/.."

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
    echo "fuzz.sh: installing clang" >&2
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq clang
    if ! probe_fuzzer; then
        # libFuzzer's runtime lives in a separate package on some releases.
        version=$(clang++ --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n1)
        apt-get install -y -qq "libclang-rt-${version}-dev"
    fi
fi

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DVORD_FUZZ=ON -DVORD_BUILD_TESTS=OFF \
    -DVORD_BUILD_BENCH=OFF
cmake --build build-fuzz -j2 --target "${targets[@]}"

failed=()
for target in "${targets[@]}"; do
    corpus=build-fuzz/corpus/${target%_fuzz}
    mkdir -p "$corpus"
    echo "fuzz.sh: $target for ${seconds} s" >&2
    if ! "build-fuzz/bin/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="build-fuzz/$target-" "$corpus"; then
        failed+=("$target")
    fi
done

if ((${#failed[@]})); then
    echo "fuzz.sh: findings in: ${failed[*]}" >&2
    exit 1
fi
