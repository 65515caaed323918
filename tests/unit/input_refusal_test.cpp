// Values that would build a silently broken link are refused or clamped, loudly,
// and the log never carries a payload byte that could break a line.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/Tokens.h"

namespace {

std::string conf() { return vord::resolvePath("/vendor/etc/sla/vord.conf"); }

class Refusals : public ::testing::Test {
  protected:
    void SetUp() override { unlink(conf().c_str()); }
    bool registered(const std::string& name) {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        return p.findInterface(name) != nullptr;
    }
    size_t heldSlots() {
        size_t n = 0;
        for (const interfaceMark& m : p.markSlots()) n += m.available ? 0 : 1;
        return n;
    }
    Parameters p;
};

TEST(LogText, EscapesEverythingThatCouldBreakOrForgeALine) {
    EXPECT_EQ("wlan0,10123", vord::escapeForLog("wlan0,10123"));
    EXPECT_EQ("a\\x0aE/MUX-Vord-daemon: x", vord::escapeForLog("a\nE/MUX-Vord-daemon: x"));
    EXPECT_EQ("\\x0d\\x1b[2J\\x7f\\xff\\\\", vord::escapeForLog("\r\x1b[2J\x7f\xff\\"));
    EXPECT_EQ("abc...", vord::escapeForLog("abcdef", 3));
}

TEST(Tokens, KernelTablesRootAndLongNames) {
    for (const char* s : {"local", "main", "default", "unspec", "255", "0", "0x1f", "0XFF", "017"}) {
        EXPECT_TRUE(vord::isKernelRouteTableName(s)) << s;
        EXPECT_NE(nullptr, vord::unmanageableInterfaceReason(s)) << s;
    }
    for (const char* s : {"wlan0", "mainx", "0x", "0xg1", "rmnet_data12", "eth0"}) {
        EXPECT_FALSE(vord::isKernelRouteTableName(s)) << s;
    }
    EXPECT_EQ(nullptr, vord::unmanageableInterfaceReason("rmnet_data12"));  // 12: the longest
    EXPECT_NE(nullptr, vord::unmanageableInterfaceReason("rmnet_data123"));
    EXPECT_NE(nullptr, vord::unmanageableInterfaceReason("wlan0\n"));
    EXPECT_TRUE(vord::isRootUid("0") && vord::isRootUid("00000"));
    EXPECT_FALSE(vord::isRootUid("10") || vord::isRootUid("") || vord::isRootUid("0x0"));
}

TEST_F(Refusals, UnmanageableNamesTakeNoSlotAndNoRecord) {
    vord::LogCapture log;
    for (const char* name : {"rmnet_data123", "ccmni_long_nm", "local", "main", "255", "wlan0 -j DROP",
                             "wlan0;reboot", "a/b", "-o"}) {
        p.UpdateInterface(name, true);
        EXPECT_FALSE(registered(name)) << name;
        EXPECT_EQ(1u, log.count(std::string("UpdateInterface refused interface \"") + name)) << name;
    }
    EXPECT_EQ(0u, heldSlots());
    // A table name given in a parameter string is refused as well.
    EXPECT_EQ(nullptr, p.parseInterfaceParams("wlan0,0,main,0x200000,1,0,0,0,ffffffffffff"));
    EXPECT_TRUE(log.contains("Interface routeTable \"main\" is one of the kernel's own tables"));
}

TEST_F(Refusals, FifthInterfaceWarnsNamingBoth) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1"}) p.UpdateInterface(name, true);
    vord::LogCapture log;
    p.UpdateInterface("ccmni0", true);
    EXPECT_EQ(1u, log.count("W/MUX-Vord-SlaParameters: getValidInterfaceMark every mark slot is held: "
                            "ccmni0 shares mark 0x200000 with wlan0, and its routing rule replaces "
                            "the one of wlan0"))
        << ::testing::PrintToString(log.lines());
    ASSERT_TRUE(registered("ccmni0"));
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    EXPECT_STREQ("0x200000", p.findInterface("ccmni0")->fwmark);
}

TEST_F(Refusals, ModeMustBeADecimalNumber) {
    p.UpdateInterface("rmnet_data0", true);
    vord::LogCapture log;
    for (const char* mode : {"", "x", "1,9", "-1", "1 ", "1234567890"}) {
        p.UpdateInterfaceMode(mode);
        EXPECT_EQ("1", p.getInterfaceMode()) << mode;
    }
    EXPECT_EQ(6u, log.count("UpdateInterfaceMode refused mode"));
    EXPECT_TRUE(log.contains("refused mode \"1,9\": not a decimal number"));
    p.UpdateInterfaceMode("0");
    EXPECT_EQ("0", p.getInterfaceMode());
    // Later cellular interfaces still parse with the accepted mode.
    p.UpdateInterface("rmnet_data1", true);
    ASSERT_TRUE(registered("rmnet_data1"));
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    EXPECT_FALSE(p.findInterface("rmnet_data1")->metered);
}

TEST_F(Refusals, RootUidIsRefusedInEveryList) {
    vord::LogCapture log;
    p.setuidwhitelist("0,10123,000");
    p.populateSlauidwhitelist();
    p.setDWUidWhitelist("0");
    p.populateDWUidWhitelist();
    p.setDDUidWhitelist("10456,0");
    p.populateDDUidWhitelist();
    p.setGamingUids("0,10789");
    p.populateGamingUids();
    EXPECT_EQ(std::vector<std::string>{"10123"}, p.slaUidWhitelist());
    EXPECT_TRUE(p.dwUidWhitelist().empty());
    EXPECT_EQ(std::vector<std::string>{"10456"}, p.ddUidWhitelist());
    EXPECT_EQ(std::vector<std::string>{"10789"}, p.gamingUidList());
    EXPECT_EQ(5u, log.count("UID 0 (root) is never steered"));
}

TEST_F(Refusals, CacheSizeIsClamped) {
    vord::test::TempRoot::writeAt(conf(), "best_est_cache_size=1000000000\nn_hyst=4\n");
    vord::LogCapture log;
    Parameters q;
    EXPECT_EQ(Parameters::kMaxBestEstCacheSize, q.getBestEstCacheSize());
    EXPECT_EQ(4, q.getNHyst());
    EXPECT_EQ(1u, log.count("W/MUX-Vord-SlaParameters: best_est_cache_size 1000000000 is above "
                            "the maximum of 3600: 3600 is used"));
    vord::test::TempRoot::writeAt(conf(), "best_est_cache_size=-5\n");
    EXPECT_EQ(-5, Parameters().getBestEstCacheSize());  // negative: the cache is off
}

}  // namespace
