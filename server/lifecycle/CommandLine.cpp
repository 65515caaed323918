#include "lifecycle/CommandLine.h"

#include <string.h>

namespace vord {

namespace {

constexpr const char* kUsage =
        "usage: vord [--help | --version]\n"
        "\n"
        "Link aggregation and selection daemon. Started by init without arguments\n"
        "(vord.rc); it then reads /vendor/etc/sla/vord.conf, listens on\n"
        "/dev/socket/vord and stops when vendor.sla.enabled reads 2. On a host every\n"
        "fixed path is taken under $VORD_ROOT. SIGTERM and SIGINT clean up and exit.\n";

}  // namespace

int parseCommandLine(int argc, const char* const* argv, FILE* out, FILE* err) {
    if (argc <= 1) return -1;
    const char* arg = argv[1];
    const bool help = strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0;
    const bool version = strcmp(arg, "--version") == 0;
    if (argc > 2 || !(help || version)) {
        fprintf(err, "vord: unexpected argument \"%s\"\n%s", argv[help || version ? 2 : 1], kUsage);
        return 2;
    }
    if (help) {
        fputs(kUsage, out);
    } else {
        fprintf(out, "vord (SLA+SLS) %s\n", kVordVersion);
    }
    return 0;
}

}  // namespace vord
