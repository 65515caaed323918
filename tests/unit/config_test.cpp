// The configuration file, its defaults, and the UID and gateway lists.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"

namespace {

using Strings = std::vector<std::string>;

std::string conf() { return vord::resolvePath("/vendor/etc/sla/vord.conf"); }

TEST(Config, CommentCutAndConversionQuirks) {
    using Read = std::string (*)(const Parameters&);
    const Read nHyst = [](const Parameters& p) { return std::to_string(p.getNHyst()); };
    const struct {
        const char* text;
        Read read;
        const char* expected;
    } cases[] = {
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
    };
    for (const auto& c : cases) {
        vord::test::TempRoot::writeAt(conf(), std::string(c.text) + "\n");
        Parameters p;
        EXPECT_EQ(c.read(p), c.expected) << c.text;
    }
}

TEST(Config, MissingFileOrDirectoryKeepsDefaultsAndLogsOneError) {
    unlink(conf().c_str());
    for (bool directory : {false, true}) {
        if (directory) { ASSERT_EQ(0, mkdir(conf().c_str(), 0755)); }
        vord::LogCapture log;
        Parameters p;
        EXPECT_EQ(log.grep("E/"), Strings{"E/MUX-Vord-SlaParameters: read vord conf file failed!"});
        EXPECT_EQ(p.get(mini_est_interval), 1000);
        EXPECT_EQ(p.get(28), 0);
        EXPECT_EQ(p.get(29), -1);
        char buf[512];
        EXPECT_STREQ(p.getStatsProtocols(buf), "protocols=http,https");
    }
    rmdir(conf().c_str());
}

TEST(Config, UidListsRefuseOverlongAndNonDecimalEntriesKeepingTheRest) {
    unlink(conf().c_str());
    Parameters p;
    const struct {
        const char* name;
        void (Parameters::*set)(const char*);
        void (Parameters::*parse)();
        Strings (Parameters::*get)() const;
    } lists[] = {
        {"populateSlauidwhitelist", &Parameters::setuidwhitelist,
         &Parameters::populateSlauidwhitelist, &Parameters::slaUidWhitelist},
        {"populateDWUidWhitelist", &Parameters::setDWUidWhitelist,
         &Parameters::populateDWUidWhitelist, &Parameters::dwUidWhitelist},
        {"populateDDUidWhitelist", &Parameters::setDDUidWhitelist,
         &Parameters::populateDDUidWhitelist, &Parameters::ddUidWhitelist},
    };
    for (const auto& l : lists) {
        vord::LogCapture log;
        (p.*l.set)("1010123,10200,1;2,1 -j ACCEPT,10300");
        (p.*l.parse)();
        EXPECT_EQ((p.*l.get)(), (Strings{"10200", "10300"})) << l.name;
        const std::string name = l.name;
        EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: " + name + " token length error is 7"), 1u);
        EXPECT_EQ(log.count(name + " token length error is 11"), 1u);
        EXPECT_EQ(log.count(name + " refused entry \"1;2\""), 1u);
    }
}

TEST(Config, GatewaysAreAddressLiteralsOfAtMostSixteenCharacters) {
    unlink(conf().c_str());
    Parameters p;
    vord::LogCapture log;
    p.populateWifiGateway("192.168.1.1,2001:db8::1:2:34,2001:db8::1:2:345,192.168.1.1 -j,fe80::1");
    EXPECT_EQ(p.wifiGateways(), (Strings{"192.168.1.1", "2001:db8::1:2:34", "fe80::1"}));
    EXPECT_EQ(log.count("populateWifiGateway token length error is 17"), 1u);
    EXPECT_EQ(log.count("populateWifiGateway refused entry \"192.168.1.1 -j\""), 1u);
}

}  // namespace
