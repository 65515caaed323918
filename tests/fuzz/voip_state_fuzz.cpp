// Arbitrary bytes as the module's VoIP state file. The two fields are copied
// into buffers of 20 bytes each, the most the file's 20 bytes can fill.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "sla/SlaStatsImpl.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vord::LogCapture quiet;
    vordfuzz::writeFile("/proc/sla/sla_voip_state", data, size);
    std::unique_ptr<char[]> address(new char[20]()), port(new char[20]());
    int n = SlaStatsImpl::instance()->getSlaVoipState(address.get(), port.get());
    if (n < 0 || n > 20) abort();
    return 0;
}
