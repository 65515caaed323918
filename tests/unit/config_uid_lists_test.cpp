// UID lists and gateways: splitting, limits, validation of what may reach a rule.

#include <gtest/gtest.h>

#include <unistd.h>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "config/Parameters.h"

using Strings = std::vector<std::string>;

class UidLists : public ::testing::Test {
  protected:
    void SetUp() override { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }
};

TEST_F(UidLists, SplitsAndLogsEntriesInOrder) {
    Parameters p;
    vord::LogCapture log;
    p.setuidwhitelist("10123,10456");
    p.populateSlauidwhitelist();
    EXPECT_EQ(p.slaUidWhitelist(), (Strings{"10123", "10456"}));
    EXPECT_EQ(log.grep("SLA UID whitelist = "),
              (Strings{"I/MUX-Vord-SlaParameters: SLA UID whitelist = 10123",
                       "I/MUX-Vord-SlaParameters: SLA UID whitelist = 10456"}));

    p.setuidwhitelist("10123,");
    p.populateSlauidwhitelist();
    EXPECT_EQ(p.slaUidWhitelist(), (Strings{"10123"}));

    log.clear();
    p.setuidwhitelist("");
    p.populateSlauidwhitelist();
    EXPECT_TRUE(p.slaUidWhitelist().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UidLists, RefusesOverlongAndNonDecimalEntriesKeepingTheRest) {
    Parameters p;
    vord::LogCapture log;
    // Empty entries and anything but digits would end up as bare or extra
    // arguments of an owner match.
    p.setDWUidWhitelist("1010123,10200,1;2,,1 -j ACCEPT,10300");
    p.populateDWUidWhitelist();
    EXPECT_EQ(p.dwUidWhitelist(), (Strings{"10200", "10300"}));
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: populateDWUidWhitelist token length error is 7"), 1u);
    EXPECT_EQ(log.count("populateDWUidWhitelist token length error is 11"), 1u);
    EXPECT_EQ(log.count("populateDWUidWhitelist refused entry \"1;2\""), 1u);
    EXPECT_EQ(log.count("populateDWUidWhitelist refused entry \"\""), 1u);

    // The gaming list has no length limit, but still only takes decimal UIDs.
    p.setGamingUids("1010123,10123,10123,x");
    p.populateGamingUids();
    EXPECT_EQ(p.gamingUidList(), (Strings{"1010123", "10123", "10123"}));
    EXPECT_EQ(log.count("SLS GAMING Demo UID = 1010123"), 1u);

    p.setDDUidWhitelist("99999,100000");
    p.populateDDUidWhitelist();
    EXPECT_EQ(p.ddUidWhitelist(), (Strings{"99999"}));
    EXPECT_EQ(log.count("populateDDUidWhitelist token length error is 6"), 1u);
}

TEST_F(UidLists, GatewaysAreAddressLiteralsOfAtMostSixteenCharacters) {
    Parameters p;
    vord::LogCapture log;
    p.populateWifiGateway("192.168.1.1,2001:db8::1:2:34,2001:db8::1:2:345,192.168.1.1 -j,fe80::1");
    EXPECT_EQ(p.wifiGateways(), (Strings{"192.168.1.1", "2001:db8::1:2:34", "fe80::1"}));
    EXPECT_EQ(log.count("populateWifiGateway token length error is 17"), 1u);
    EXPECT_EQ(log.count("populateWifiGateway refused entry \"192.168.1.1 -j\""), 1u);
    EXPECT_EQ(log.count("populateWifiGateway = "), 3u);

    p.populateWifiGateway("");
    EXPECT_TRUE(p.wifiGateways().empty());
}

TEST_F(UidLists, NullTextKeepsTheCurrentValue) {
    Parameters p;
    p.setGamingUids("10123,10456");
    p.setGamingUids(nullptr);
    EXPECT_EQ(p.getGamingUids(), "10123,10456");
    p.setGamingRttServer("192.0.2.9");
    p.setGamingRttServer(nullptr);
    EXPECT_EQ(p.getRttServer(), "192.0.2.9");
}

TEST_F(UidLists, WhitelistFromTheConfigurationIsParsedByInstance) {
    // instance() parses "uid_whitelist" once after reading the file.
    Parameters* p = Parameters::instance();
    p->setuidwhitelist("10001");
    p->populateSlauidwhitelist();
    EXPECT_EQ(p->slaUidWhitelist(), (Strings{"10001"}));
    EXPECT_EQ(Parameters::instance(), p);
    p->setuidwhitelist("");
    p->populateSlauidwhitelist();
}
