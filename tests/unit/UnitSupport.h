// Shared by the unit tests: the usual includes, registry records of our choosing
// and do-nothing stand-ins for the three rule tools in the sandbox root.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"

namespace unittest {

// Registry parameter strings: name,metered,table,mark,default,cost,bias,slave,bssid.
constexpr const char* kWlan0 = "wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff";
constexpr const char* kWlan1 = "wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff";
constexpr const char* kRmnet = "rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff";

// A base that removes the configuration file before the fixture's own store reads it.
struct NoConf {
    NoConf() { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }
};

inline void stubRuleTools() {
    for (const char* tool : {"iptables-wrapper-1.0", "ip6tables-wrapper-1.0", "ip-wrapper-1.0"})
        vord::test::TempRoot::writeAt(vord::resolvePath("/system/bin/") + tool, "#!/bin/sh\n", 0755);
}

inline void addRecord(const std::string& paramString) {
    InterfaceInfo_t* record = Parameters::instance()->parseInterfaceParams(paramString);
    ASSERT_NE(record, nullptr) << paramString;
    ASSERT_EQ(Parameters::instance()->addNewInterfacetoMap(record), 1);
}

inline void clearRegistry() {
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    for (auto& entry : Parameters::instance()->interfaceInfoMap()) free(entry.second);
    Parameters::instance()->interfaceInfoMap().clear();
}

}  // namespace unittest
