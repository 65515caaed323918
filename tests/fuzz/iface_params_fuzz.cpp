// Arbitrary text as an interface parameter string, an interface name to add
// and remove, a mode and a BSSID list. A record that parses must carry only
// valid tokens; an add must leave no slot behind after the remove.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "config/Parameters.h"
#include "config/Tokens.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Parameters* p = new Parameters();
    vord::LogCapture quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);

    if (InterfaceInfo_t* r = p->parseInterfaceParams(text)) {
        if (!vord::isValidInterfaceName(r->name) || !vord::isValidInterfaceName(r->routeTable) ||
            vord::isKernelRouteTableName(r->routeTable) || !vord::isHexMark(r->fwmark) ||
            strnlen(r->bssid, sizeof(r->bssid)) > 12) {
            abort();
        }
        free(r);
    }

    const char* name = text.c_str();
    p->UpdateInterface(name, true);
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        if (p->findInterface(name) != nullptr && vord::unmanageableInterfaceReason(name) != nullptr) {
            abort();
        }
    }
    p->UpdateInterfaceMode(name);
    p->UpdateInterfaceBssid(name);
    p->UpdateInterface(name, false);
    for (const interfaceMark& slot : p->markSlots()) {
        if (!slot.available) abort();
    }
    return 0;
}
