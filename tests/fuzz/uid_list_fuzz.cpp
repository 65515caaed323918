// Arbitrary text through the UID list and gateway parsers. Whatever they
// accept must be a valid token: a decimal UID other than root (at most five
// digits in the whitelists) or an IP address literal. The escaping of log
// text must leave no control byte.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/Tokens.h"

namespace {

void checkUids(const std::vector<std::string>& list, size_t limit) {
    for (const std::string& uid : list) {
        if (!vord::isDecimalUid(uid) || vord::isRootUid(uid) || uid.size() > limit) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Parameters* p = new Parameters();
    vord::LogCapture quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* payload = text.c_str();  // as a record's text: up to the first NUL

    p->setuidwhitelist(payload);
    p->populateSlauidwhitelist();
    checkUids(p->slaUidWhitelist(), 5);
    p->setDWUidWhitelist(payload);
    p->populateDWUidWhitelist();
    checkUids(p->dwUidWhitelist(), 5);
    p->setDDUidWhitelist(payload);
    p->populateDDUidWhitelist();
    checkUids(p->ddUidWhitelist(), 5);
    p->setGamingUids(payload);
    p->populateGamingUids();
    checkUids(p->gamingUidList(), 10);
    p->populateWifiGateway(payload);
    for (const std::string& gw : p->wifiGateways()) {
        if (!vord::isIpAddressLiteral(gw) || gw.size() > 16) abort();
    }

    for (char c : vord::escapeForLog(text)) {
        unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7f) abort();
    }
    (void)vord::isKernelRouteTableName(text);
    (void)vord::unmanageableInterfaceReason(text);
    (void)vord::isHexMark(text);
    return 0;
}
