#!/usr/bin/env bash
# The device build checked on a host: Android.bp parsed and formatted clean by
# bpfmt, then every source its modules list (vord, vordctl, vord_unit_tests)
# compiled against Debian's builds of the platform's liblog, libbase, libcutils
# and libutils (android-lib*-dev) instead of platform/'s stand-ins, each module
# linked with the libraries it lists, and the unit tests run.
#
# Two things a host lacks are added at link time: Debian's libcutils has no
# property service, so properties come from platform/src/properties.cpp (files
# under $VORD_ROOT/properties), and glibc has no <sys/system_properties.h>, whose
# two sizes platform/debian/include provides.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$top/scripts/deps.sh"
ensure_deps blueprint-tools clang android-liblog-dev android-libbase-dev android-libcutils-dev \
    android-libutils-dev
cd "$top"
# The platform builds with clang; so does this check.
export CXX=clang++

echo "== Android.bp: bpfmt"
unformatted=$(bpfmt -l Android.bp)
if [ -n "$unformatted" ]; then
    bpfmt -d Android.bp >&2
    echo "Android.bp is not formatted as bpfmt formats it" >&2
    exit 1
fi

out=${ANDROID_LIBS_BUILD_DIR:-$top/build-android-libs}
libdir=/usr/lib/$(gcc -print-multiarch)/android
mkdir -p "$out/obj"

# The quoted items of list KEY of module NAME (a "defaults" module included).
bp_list() {
    awk -v want="$1" -v key="$2" '
        /^[a-z_]+ \{/ { block = ""; next }
        /^\}/ {
            if (block ~ "\n    name: \"" want "\",") {
                n = split(block, lines, "\n"); inlist = 0
                for (i = 1; i <= n; i++) {
                    l = lines[i]
                    if (l ~ "^    " key ": \\[") inlist = 1
                    if (inlist) {
                        while (match(l, /"([^"\\]|\\.)*"/)) {
                            v = substr(l, RSTART + 1, RLENGTH - 2); gsub(/\\"/, "\"", v); print v
                            l = substr(l, RSTART + RLENGTH)
                        }
                        if (lines[i] ~ /\],?$/) inlist = 0
                    }
                }
            }
            next
        }
        { block = block "\n" $0 }' Android.bp
}
module_list() {  # NAME KEY: the module's own list, then its defaults'
    bp_list "$1" "$2"
    local d
    for d in $(bp_list "$1" defaults); do bp_list "$d" "$2"; done
}

# The sources of a module: its srcs globs expanded, less its exclude_srcs.
module_sources() {
    shopt -s globstar nullglob
    local pattern f excluded
    excluded=" $(module_list "$1" exclude_srcs | tr '\n' ' ') "
    for pattern in $(module_list "$1" srcs); do
        for f in $pattern; do
            [[ "$excluded" == *" $f "* ]] || echo "$f"
        done
    done
}

# Compiles the sources of module NAME (plus EXTRA...) into objects; prints them.
compile_module() {
    local name=$1; shift
    local flags=(-std=c++17 -O1 -g0 -isystem /usr/include/android -I platform/debian/include)
    local f
    while IFS= read -r f; do flags+=("$f"); done < <(module_list "$name" cflags)
    while IFS= read -r f; do flags+=(-I "$f"); done < <(module_list "$name" local_include_dirs)
    local sources
    sources=$( (module_sources "$name"; printf '%s\n' "$@") | sed '/^$/d' | sort -u)
    # Objects are per module: cflags differ between modules.
    printf '%s\n' "$sources" | xargs -P "$(nproc)" -I{} sh -c '
        src=$1; o="$0/$src.o"; shift; mkdir -p "$(dirname "$o")"
        exec "$CXX" "$@" -c "$src" -o "$o"' "$out/obj/$name" {} "${flags[@]}" >&2
    printf '%s\n' "$sources" | sed "s|^|$out/obj/$name/|; s|\$|.o|"
}

link_module() {  # NAME OBJECTS_FILE EXTRA_LIBS...
    local name=$1 objects=$2; shift 2
    local libs=() lib
    for lib in $(module_list "$name" shared_libs) $(module_list "$name" static_libs); do
        case "$lib" in
            libgmock) libs+=(-lgmock -lgtest) ;;
            *) libs+=("$libdir/$lib.so") ;;
        esac
    done
    # shellcheck disable=SC2046
    "$CXX" -o "$out/$name" $(cat "$objects") "${libs[@]}" "$@" -Wl,-rpath,"$libdir" -pthread
}

echo "== Android.bp modules against Debian's platform libraries"
for module in vord vordctl vord_unit_tests; do
    extra=()
    case "$module" in vord|vord_unit_tests) extra=(platform/src/properties.cpp) ;; esac
    compile_module "$module" "${extra[@]}" > "$out/$module.objects"
    link_module "$module" "$out/$module.objects"
    echo "$module: $(wc -l < "$out/$module.objects") sources compiled and linked"
done
"$out/vord" --version
"$out/vordctl" --help > /dev/null

echo "== unit tests against Debian's platform libraries"
# The real libcutils takes a socket from init only at /dev/socket/vord itself,
# which a test on a host cannot bind.
if ! "$out/vord_unit_tests" --gtest_brief=1 --gtest_filter=-ControlServer.ListensOnTheSocketInitHandsOver \
        > "$out/unit.log" 2>&1; then
    grep -v '^[VDIWEF]/' "$out/unit.log" >&2  # the failures, without the daemon's log lines
    exit 1
fi
tail -n 2 "$out/unit.log"
