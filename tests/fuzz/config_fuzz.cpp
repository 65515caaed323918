// Arbitrary bytes as the configuration file, read by a freshly built store; the
// comment cut and blank strip also run on the bytes directly.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "config/Parameters.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vord::LogCapture quiet;
    std::string text(reinterpret_cast<const char*>(data), size);
    vordfuzz::writeFile("/vendor/etc/sla/vord.conf", data, size);
    Parameters p;
    if (p.getBestEstCacheSize() > Parameters::kMaxBestEstCacheSize) abort();
    for (int id = -1; id <= Parameters::kOperValues; ++id) (void)p.get(id);
    char line[512];
    p.getStatsProtocols(line);
    p.getStatsPorts(line);
    Parameters::trim(text);
    if (!text.empty() && (text.front() == ' ' || text.front() == '\t')) abort();
    return 0;
}
