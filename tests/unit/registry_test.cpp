// Interface records, mark slots and the interface list updates.

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "config/Parameters.h"

namespace {

struct RecordDeleter {
    void operator()(InterfaceInfo_t* r) const { free(r); }
};
using Record = std::unique_ptr<InterfaceInfo_t, RecordDeleter>;

// A copy of the registered record of `name`; `found` says whether there is one.
InterfaceInfo_t lookup(Parameters& p, const std::string& name, bool* found) {
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    InterfaceInfo_t* r = p.findInterface(name);
    *found = r != nullptr;
    return r ? *r : InterfaceInfo_t{};
}

}  // namespace

class Registry : public ::testing::Test {
  protected:
    void SetUp() override { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }
    Parameters p;
};

TEST_F(Registry, ParsesTheNineFieldString) {
    Record r(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff"));
    ASSERT_TRUE(r);
    EXPECT_STREQ(r->name, "wlan0");
    EXPECT_FALSE(r->metered);
    EXPECT_STREQ(r->routeTable, "wlan0");
    EXPECT_STREQ(r->fwmark, "0x200000");
    EXPECT_TRUE(r->isDefault);
    EXPECT_EQ(r->cost, 0);
    EXPECT_FALSE(r->slave);
    EXPECT_STREQ(r->bssid, "ffffffffffff");

    // Trailing comma: still nine fields. Non-numeric flags read as 0, 2 as true;
    // the BSSID is cut to 12 characters.
    r.reset(p.parseInterfaceParams("rmnet_data0,abc,rmnet_data0,0x400000,2,-4,7,2,AABBCCDDEEFF99,"));
    ASSERT_TRUE(r);
    EXPECT_FALSE(r->metered);
    EXPECT_TRUE(r->isDefault);
    EXPECT_TRUE(r->slave);
    EXPECT_EQ(r->cost, -4);
    EXPECT_EQ(r->bias, 7);
    EXPECT_STREQ(r->bssid, "AABBCCDDEEFF");
}

TEST_F(Registry, RefusesWrongFieldCountsAndMissingFields) {
    vord::LogCapture log;
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff,9"), nullptr);
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: parseInterfaceParams Check vord.conf for interface errors"), 2u);

    log.clear();
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,,0x200000,1,0,0,0,ffffffffffff"), nullptr);
    EXPECT_EQ(log.count("validateInterfaceParams Interface routeTable is NULL"), 1u);
    EXPECT_EQ(log.count("Interface fwmark is NULL"), 0u);
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,,,1,0,0,0,ffffffffffff"), nullptr);
    EXPECT_EQ(log.count("validateInterfaceParams Interface fwmark is NULL"), 1u);
}

TEST_F(Registry, RefusesNamesThatAreNotInterfaceNames) {
    vord::LogCapture log;
    for (const char* name : {"wlan0 -j DROP", "wlan0;reboot", "a/b", "averyveryverylongname", "-o"}) {
        p.UpdateInterface(name, true);
        bool found = true;
        lookup(p, name, &found);
        EXPECT_FALSE(found) << name;
    }
    EXPECT_EQ(log.count("UpdateInterface refused interface"), 5u);
    // No slot was taken by a refused name.
    for (const interfaceMark& slot : p.markSlots()) EXPECT_TRUE(slot.available);
    // A table or mark that would inject arguments is refused as well.
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0 x,0x200000,1,0,0,0,ffffffffffff"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000 -j,1,0,0,0,ffffffffffff"), nullptr);
}

TEST_F(Registry, MarkSlotsAreReusedAndAFifthInterfaceSharesTheFirst) {
    EXPECT_EQ(p.getValidInterfaceMark("wlan0"), "0x200000");
    EXPECT_EQ(p.getValidInterfaceMark("wlan0"), "0x200000");
    EXPECT_EQ(p.getValidInterfaceMark("rmnet_data0"), "0x400000");
    p.releaseValidInterfaceMark("wlan0");
    EXPECT_EQ(p.getValidInterfaceMark("wlan1"), "0x200000");
    EXPECT_EQ(p.getValidInterfaceMark("ccmni0"), "0x600000");
    EXPECT_EQ(p.getValidInterfaceMark("ccmni1"), "0x800000");
    auto before = p.markSlots();
    EXPECT_EQ(p.getValidInterfaceMark("wwan0"), "0x200000");
    p.releaseValidInterfaceMark("nobody");
    auto after = p.markSlots();
    ASSERT_EQ(after.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(after[i].ifaceName, before[i].ifaceName);
        EXPECT_FALSE(after[i].available);
    }
}

TEST_F(Registry, AddBuildsTheParameterStringsFromTheName) {
    p.UpdateInterface("wlan0", true);
    EXPECT_EQ(p.getIfaceParams(0), "wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    p.UpdateInterface("wlan1", true);
    EXPECT_EQ(p.getIfaceParams(0), "wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    p.UpdateInterface("rmnet_data0", true);
    EXPECT_EQ(p.getIfaceParams(0), "rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    p.UpdateInterface("rmnet_data1", true);
    EXPECT_EQ(p.getIfaceParams(0), "rmnet_data1,1,rmnet_data1,0x800000,0,0,0,1,ffffffffffff");
    EXPECT_EQ(p.getNumInterfaces(), 1);

    bool found = false;
    InterfaceInfo_t r = lookup(p, "rmnet_data1", &found);
    ASSERT_TRUE(found);
    EXPECT_TRUE(r.metered);
    EXPECT_TRUE(r.slave);

    // Removing wlan0 frees its slot for the next new interface.
    p.UpdateInterface("wlan0", false);
    lookup(p, "wlan0", &found);
    EXPECT_FALSE(found);
    p.UpdateInterface("ccmni0", true);
    // Slave status counts the rmnet_data slot holders, whatever is being added.
    EXPECT_EQ(p.getIfaceParams(0), "ccmni0,1,ccmni0,0x200000,0,0,0,1,ffffffffffff");

    // Storing a name twice replaces (and frees) the old record.
    p.UpdateInterface("ccmni0", true);
    EXPECT_EQ(p.delOldInterfacetoMap("not-there"), 1);
}

TEST_F(Registry, ModeAndBssidUpdateRecordsInPlace) {
    p.UpdateInterface("wlan0", true);
    p.UpdateInterface("wlan1", true);
    p.UpdateInterface("rmnet_data0", true);
    bool found = false;

    p.UpdateInterfaceMode("0");
    EXPECT_FALSE(lookup(p, "rmnet_data0", &found).metered);
    EXPECT_FALSE(lookup(p, "wlan0", &found).metered);
    p.UpdateInterfaceMode("1");
    EXPECT_TRUE(lookup(p, "rmnet_data0", &found).metered);

    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF,11:22:33:44:55:66");
    EXPECT_STREQ(lookup(p, "wlan0", &found).bssid, "AABBCCDDEEFF");
    EXPECT_STREQ(lookup(p, "wlan1", &found).bssid, "112233445566");
    EXPECT_STREQ(lookup(p, "rmnet_data0", &found).bssid, "ffffffffffff");

    p.UpdateInterfaceBssid("aa:bb:cc:dd:ee:00");
    EXPECT_STREQ(lookup(p, "wlan0", &found).bssid, "aabbccddee00");
    EXPECT_STREQ(lookup(p, "wlan1", &found).bssid, "112233445566");

    vord::LogCapture log;
    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF,11:22:33:44:55:66:7");
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: UpdateInterfaceBssid token length error is 13"), 1u);
    EXPECT_STREQ(lookup(p, "wlan0", &found).bssid, "aabbccddee00");
}
