// The store: the configuration file and its quirks, the UID and gateway lists,
// interface records and mark slots, and the values it refuses, loudly. The log
// never carries a payload byte that could break a line.
#include "UnitSupport.h"

#include <sys/stat.h>

#include <tuple>

#include "config/LogText.h"

namespace {

using Strings = std::vector<std::string>;

std::string conf() { return vord::resolvePath("/vendor/etc/sla/vord.conf"); }

// A store read from no configuration file.
class Store : public ::testing::Test, unittest::NoConf {
  protected:
    // A copy of the registered record of `name`; an empty name when there is none.
    InterfaceInfo_t lookup(const std::string& name) {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        InterfaceInfo_t* r = p.findInterface(name);
        return r != nullptr ? *r : InterfaceInfo_t{};
    }
    Parameters p;
    vord::LogCapture log;
};

TEST(Config, CommentCutAndConversionQuirks) {
    using Read = std::string (*)(const Parameters&);
    const Read nHyst = [](const Parameters& p) { return std::to_string(p.getNHyst()); };
    const Read cache = [](const Parameters& p) { return std::to_string(p.getBestEstCacheSize()); };
    const Read period = [](const Parameters& p) {
        return std::to_string(p.get(mini_est_interval)) + "," + std::to_string(p.getTHystS()) + "," +
               std::to_string(p.getPingIntervalMs()) + "," + std::to_string(p.getRuleCommandTimeoutS());
    };
    const Read probe6 = [](const Parameters& p) { return p.getIpv6ProbeServer(); };
    const struct { const char* text; Read read; const char* expected; } cases[] = {
        {"n_hyst=3 # three", nHyst, "3"},
        {"n_hyst=3#three", nHyst, "0"},  // the character before "#" goes with the comment
        {"n_hyst=34#x", nHyst, "3"},
        {"n_hyst=12abc", nHyst, "12"},
        {"n_hyst=abc", nHyst, "0"},
        {"n_hyst= -3", nHyst, "-3"},
        {"#n_hyst=3", nHyst, "1"},
        {"n_hyst=2\nn_hyst=7\nn_hyst 5", nHyst, "7"},  // the last value wins
        {"n_hyst=5\r", nHyst, "5"},
        {"ports=8080\r", [](const Parameters& p) { return p.getPorts(); }, "8080\r"},
        {"protocols=x=y", [](const Parameters& p) { return p.getProtocols(); }, "x=y"},
        {"best_est_cache_size=1000000000", cache, "3600"},  // clamped
        {"best_est_cache_size=-5", cache, "-5"},            // negative: the cache is off
        // Periods out of range are refused; the value in force stays.
        {"mini_est_interval=-1\nt_hyst_s=3601\nping_interval_ms=60001\nrule_command_timeout_s=0", period,
         "1000,0,1000,30"},
        {"mini_est_interval=2147483647\nmini_est_interval=60000\nrule_command_timeout_s=3600", period,
         "60000,0,1000,3600"},
        // Only an IPv6 literal is taken.
        {"ipv6_probe_server=1.1.1.1", probe6, VORD_DEFAULT_RTT_SERVER6},
        {"ipv6_probe_server=fd66::1\nipv6_probe_server=[fd66::2]", probe6, "fd66::1"},
    };
    for (const auto& c : cases) {
        vord::test::TempRoot::writeAt(conf(), std::string(c.text) + "\n");
        Parameters p;
        EXPECT_EQ(c.read(p), c.expected) << c.text;
    }
}

// Missing, a directory, a FIFO (never waited on) or over the size cap: the
// defaults stay.
TEST(Config, OnlyARegularFileOfAtMost64KiBIsRead) {
    unlink(conf().c_str());
    for (const char* kind : {"missing", "directory", "fifo", "large"}) {
        if (kind == std::string("directory")) { ASSERT_EQ(0, mkdir(conf().c_str(), 0755)); }
        if (kind == std::string("fifo")) { ASSERT_EQ(0, mkfifo(conf().c_str(), 0644)); }
        if (kind == std::string("large")) {
            std::string text;
            while (text.size() <= Parameters::kMaxConfFileSize) text += "mini_est_interval=7\n";
            vord::test::TempRoot::writeAt(conf(), text);
        }
        vord::LogCapture log;
        Parameters p;
        EXPECT_EQ(log.grep("E/"), Strings{"E/MUX-Vord-SlaParameters: read vord conf file failed!"});
        EXPECT_EQ(std::make_tuple(p.get(mini_est_interval), p.get(28), p.get(29)), std::make_tuple(1000, 0, -1));
        char buf[512];
        EXPECT_STREQ(p.getStatsProtocols(buf), "protocols=http,https");
        rmdir(conf().c_str());
        unlink(conf().c_str());
    }
}

TEST_F(Store, ListsRefuseOverlongNonDecimalAndRootEntriesKeepingTheRest) {
    p.setuidwhitelist("1010123,10200,1;2,1 -j ACCEPT,000,123456,10300");
    p.populateSlauidwhitelist();
    EXPECT_EQ(p.slaUidWhitelist(), (Strings{"10200", "10300"}));
    for (const char* line : {"E/MUX-Vord-SlaParameters: populateSlauidwhitelist token length error is 7",
                             "populateSlauidwhitelist token length error is 11",
                             "populateSlauidwhitelist refused entry \"1;2\": not a decimal UID",
                             "populateSlauidwhitelist refused entry \"000\": UID 0 (root) is never steered"})
        EXPECT_EQ(log.count(line), 1u) << line;
    // The other lists go by the same rules under their own names; the gaming
    // list has no length limit.
    p.setDWUidWhitelist("0,1010123,10400");
    p.populateDWUidWhitelist();
    p.setDDUidWhitelist("1;2,10500");
    p.populateDDUidWhitelist();
    p.setGamingUids("0,10789,1;2,1012345");
    p.populateGamingUids();
    EXPECT_EQ(p.dwUidWhitelist(), Strings{"10400"});
    EXPECT_EQ(p.ddUidWhitelist(), Strings{"10500"});
    EXPECT_EQ(p.gamingUidList(), (Strings{"10789", "1012345"}));
    // Gateways are address literals of at most 16 characters.
    p.populateWifiGateway("192.168.1.1,2001:db8::1:2:34,2001:db8::1:2:345,192.168.1.1 -j,fe80::1");
    EXPECT_EQ(p.wifiGateways(), (Strings{"192.168.1.1", "2001:db8::1:2:34", "fe80::1"}));
}

TEST_F(Store, ParsesNineFieldsAndRefusesOtherCounts) {
    std::unique_ptr<InterfaceInfo_t, decltype(&free)> r(
        p.parseInterfaceParams("rmnet_data0,1,table7,0x400000,2,-4,7,1,AABBCCDDEEFF99,"), &free);
    ASSERT_TRUE(r);  // a trailing comma still makes nine fields; the BSSID is cut to 12 characters
    EXPECT_EQ(std::string(r->name) + " " + r->routeTable + " " + r->fwmark + " " + r->bssid,
              "rmnet_data0 table7 0x400000 AABBCCDDEEFF");
    EXPECT_EQ(std::make_tuple(r->metered, r->isDefault, r->slave, r->cost, r->bias),
              std::make_tuple(true, true, true, -4, 7));
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0"), nullptr);
    EXPECT_EQ(p.parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff,9"), nullptr);
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: parseInterfaceParams Check vord.conf for interface errors"), 2u);
    // A table name given in a parameter string is refused as well.
    EXPECT_EQ(nullptr, p.parseInterfaceParams("wlan0,0,main,0x200000,1,0,0,0,ffffffffffff"));
}

TEST_F(Store, MarkSlotsAreReusedAndAFifthInterfaceSharesTheFirst) {
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
    EXPECT_EQ(1u, log.count("W/MUX-Vord-SlaParameters: getValidInterfaceMark every mark slot is held: wwan0 shares "
                            "mark 0x200000 with wlan1, and its routing rule replaces the one of wlan1"));
}

// Kernel route tables (by name or number), over-long names and text that
// would add arguments to a rule command.
TEST_F(Store, UnmanageableNamesTakeNoSlotAndNoRecord) {
    for (const char* name : {"local", "main", "default", "unspec", "255", "0", "0x1f", "0XFF", "017", "rmnet_data123",
                             "ccmni_long_nm", "wlan0\n", "wlan0 -j DROP", "wlan0;reboot", "a/b", "-o"}) {
        p.UpdateInterface(name, true);
        EXPECT_STREQ("", lookup(name).name) << name;
        EXPECT_EQ(1u, log.count("UpdateInterface refused interface \"" + vord::escapeForLog(name))) << name;
    }
    for (const interfaceMark& m : p.markSlots()) EXPECT_TRUE(m.available);
    for (const char* name : {"mainx", "0xg1", "rmnet_data12"}) {  // 12 characters: the longest
        p.UpdateInterface(name, true);
        EXPECT_STREQ(name, lookup(name).name);
    }
}

TEST_F(Store, ModeAndBssidUpdateRecordsInPlace) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) p.UpdateInterface(name, true);
    for (const char* mode : {"", "x", "1,9", "-1", "1 ", "1234567890"}) p.UpdateInterfaceMode(mode);
    EXPECT_EQ(6u, log.count("UpdateInterfaceMode refused mode"));
    EXPECT_EQ("1", p.getInterfaceMode());
    p.UpdateInterfaceMode("0");
    EXPECT_FALSE(lookup("rmnet_data0").metered);
    p.UpdateInterface("rmnet_data1", true);  // later cellular records take the mode too
    EXPECT_FALSE(lookup("rmnet_data1").metered);
    p.UpdateInterfaceMode("1");
    EXPECT_TRUE(lookup("rmnet_data0").metered);
    EXPECT_FALSE(lookup("wlan0").metered);  // only cellular records change

    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF,11:22:33:44:55:66");
    EXPECT_EQ(std::string(lookup("wlan0").bssid) + " " + lookup("wlan1").bssid + " " + lookup("rmnet_data0").bssid,
              "AABBCCDDEEFF 112233445566 ffffffffffff");
    p.UpdateInterfaceBssid("aa:bb:cc:dd:ee:00,11:22:33:44:55:66:7");
    EXPECT_STREQ(lookup("wlan0").bssid, "AABBCCDDEEFF");
}

TEST(LogText, EscapesEverythingThatCouldBreakOrForgeALine) {
    EXPECT_EQ("wlan0,10123", vord::escapeForLog("wlan0,10123"));
    EXPECT_EQ("a\\x0aE/MUX-Vord-daemon: x", vord::escapeForLog("a\nE/MUX-Vord-daemon: x"));
    EXPECT_EQ("\\x0d\\x1b[2J\\x7f\\xff\\\\", vord::escapeForLog("\r\x1b[2J\x7f\xff\\"));
    EXPECT_EQ("abc...", vord::escapeForLog("abcdef", 3));
}

}  // namespace
