// One managed network interface, and the packet-mark slots.
#pragma once

#include <stdint.h>

#include <mutex>
#include <string>

// Guards Parameters' interface map and every record in it. Lock order across the
// daemon: g_interfaceMapMutex, then g_slaMapMutex or g_slsMapMutex, then
// g_iptablesMutex.
extern std::mutex g_interfaceMapMutex;

// A plain record, allocated zero-filled with calloc and released with free.
// All text fields are NUL-terminated.
struct InterfaceInfo_t {
    char name[128];        // e.g. "wlan0", "rmnet_data0"
    char routeTable[128];  // routing table the policy rule points to
    bool metered;          // cellular / metered link
    bool slave;            // the secondary interface of its kind
    bool isDefault;        // the primary Wi-Fi ("default" in the parameter string)
    int32_t cost;
    int32_t bias;
    char fwmark[128];  // packet mark as "0x..." text
    char bssid[16];    // 12 hex digits, "ffffffffffff" when unknown
};

// One of the four packet-mark slots.
struct interfaceMark {
    uint64_t mark;
    std::string ifaceName;  // " " when free
    bool available;
};
