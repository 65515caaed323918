// Interface records, mark slots and the interface updates.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "config/Parameters.h"

namespace {

class Registry : public ::testing::Test {
  protected:
    void SetUp() override { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }

    // A copy of the registered record of `name`; an empty name when there is none.
    InterfaceInfo_t lookup(const std::string& name) {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        InterfaceInfo_t* r = p.findInterface(name);
        return r != nullptr ? *r : InterfaceInfo_t{};
    }

    Parameters p;
};

TEST_F(Registry, ParsesNineFieldsAndRefusesOtherCounts) {
    std::unique_ptr<InterfaceInfo_t, decltype(&free)> r(
        p.parseInterfaceParams("rmnet_data0,1,table7,0x400000,2,-4,7,1,AABBCCDDEEFF99,"), &free);
    ASSERT_TRUE(r);  // a trailing comma still makes nine fields
    EXPECT_STREQ(r->name, "rmnet_data0");
    EXPECT_STREQ(r->routeTable, "table7");
    EXPECT_STREQ(r->fwmark, "0x400000");
    EXPECT_TRUE(r->metered && r->isDefault && r->slave);
    EXPECT_EQ(r->cost, -4);
    EXPECT_EQ(r->bias, 7);
    EXPECT_STREQ(r->bssid, "AABBCCDDEEFF");  // cut to 12 characters

    vord::LogCapture log;
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff,9"), nullptr);
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: parseInterfaceParams Check vord.conf for "
                        "interface errors"),
              2u);
}

TEST_F(Registry, MarkSlotsAreReusedAndAFifthInterfaceSharesTheFirst) {
    const std::pair<const char*, const char*> sequence[] = {
        {"wlan0", "0x200000"}, {"wlan0", "0x200000"},  {"rmnet_data0", "0x400000"},
        {nullptr, "wlan0"},  // released
        {"wlan1", "0x200000"}, {"ccmni0", "0x600000"}, {"ccmni1", "0x800000"},
        {"wwan0", "0x200000"},  // a fifth interface
    };
    for (const auto& step : sequence) {
        if (step.first == nullptr) {
            p.releaseValidInterfaceMark(step.second);
            continue;
        }
        EXPECT_EQ(p.getValidInterfaceMark(step.first), step.second) << step.first;
    }
}

TEST_F(Registry, ModeAndBssidUpdateRecordsInPlace) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) p.UpdateInterface(name, true);
    p.UpdateInterfaceMode("0");
    EXPECT_FALSE(lookup("rmnet_data0").metered);
    p.UpdateInterfaceMode("1");
    EXPECT_TRUE(lookup("rmnet_data0").metered);
    EXPECT_FALSE(lookup("wlan0").metered);  // only cellular records change

    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF,11:22:33:44:55:66");
    EXPECT_STREQ(lookup("wlan0").bssid, "AABBCCDDEEFF");
    EXPECT_STREQ(lookup("wlan1").bssid, "112233445566");
    EXPECT_STREQ(lookup("rmnet_data0").bssid, "ffffffffffff");

    vord::LogCapture log;
    p.UpdateInterfaceBssid("aa:bb:cc:dd:ee:00,11:22:33:44:55:66:7");
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: UpdateInterfaceBssid token length error is 13"),
              1u);
    EXPECT_STREQ(lookup("wlan0").bssid, "AABBCCDDEEFF");
}

}  // namespace
