#!/usr/bin/env bash
# Compiles sepolicy/ with Debian's checkpolicy against the minimal base in
# tests/sepolicy (the object classes it names and the platform types it refers
# to) and checks every context of file_contexts and property_contexts against
# the compiled policy. Fails on any error.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps checkpolicy selinux-utils m4
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
base=$top/tests/sepolicy
{
    cat "$base/base-head.conf"
    m4 -s "$base/macros.m4" "$base/platform.te" "$top"/sepolicy/*.te
    cat "$base/base-tail.conf" "$top/sepolicy/genfs_contexts"
} > "$out/policy.conf"
checkpolicy -M -c 30 -o "$out/policy.bin" "$out/policy.conf"
# sefcontext_compile -p refuses a context the policy does not know.
cp "$top/sepolicy/file_contexts" "$out/file_contexts"
sefcontext_compile -p "$out/policy.bin" -o "$out/file_contexts.bin" "$out/file_contexts"
awk 'NF && $1 !~ /^#/ { print "/" $1 "\t" $2 }' "$top/sepolicy/property_contexts" > "$out/property_contexts"
sefcontext_compile -p "$out/policy.bin" -o "$out/property_contexts.bin" "$out/property_contexts"
echo "sepolicy: compiled and every context checked"
