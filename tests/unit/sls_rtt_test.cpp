// The per-link RTT model: smoothing, misses, levels and their hysteresis.
#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>

#include <memory>
#include <vector>

#include <vord/LogCapture.h>

#include "config/Parameters.h"
#include "sls/InterfaceRtt.h"
#include "sls/Tcping.h"

namespace {

using Hist = std::vector<uint32_t>;

class InterfaceRttTest : public ::testing::Test {
  protected:
    void TearDown() override {
        params->setValue("alpha_percent", "50");
        params->setValue("min_ping_times", "5");
    }
    std::unique_ptr<InterfaceRtt> make(const char* name, int minPingTimes = 5) {
        return std::unique_ptr<InterfaceRtt>(InterfaceRtt::create(name, minPingTimes, true));
    }
    Parameters* params = Parameters::instance();
    vord::LogCapture log;
};

TEST_F(InterfaceRttTest, FirstSampleThenTwoSlowOnesMoveWifiOneBandDown) {
    auto r = make("wlan0");
    struct Step { int raw, speed, level; Hist longH; };
    const Step steps[] = {{80, 80, 11, {80}}, {200, 80, 11, {80, 200}}, {200, 140, 9, {80, 200, 200}}};
    for (const Step& s : steps) {
        r->setSpeed(s.raw);
        EXPECT_EQ(s.speed, r->speed) << s.raw;
        EXPECT_EQ(s.level, r->level) << s.raw;
        EXPECT_EQ(s.longH, r->m_longpreviousSpeed);
        EXPECT_EQ(s.longH, r->m_shortpreviousSpeed);
    }
    EXPECT_EQ(140, r->levelSpeed);
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaPing: caclaverageInterfaceSpeed: SLA_PING Ping Pass for RTT interface (wlan0) "
                             "(short_average = 140) (long_average = 140) (cacl = 140) (raw = 200) "
                             "(longpreviousSpeed size= 3) (m_shortpreviousSpeed size= 3) (alpha_percent = 50)"));
    EXPECT_TRUE(log.contains("caclInterfaceLevel: SLA_PING cacl Interface Level interface (wlan0) (network level = 9)"));
}

TEST_F(InterfaceRttTest, LevelBandsAndTheirTwentyMsHysteresis) {
    // Fresh records: any first level is taken at once.
    struct Band { const char* name; int speed, level; };
    for (const Band& b : {Band{"rmnet_data0", 89, 10}, Band{"rmnet_data0", 90, 8}, Band{"rmnet_data0", 390, 2},
                          Band{"wlan0", 119, 11}, Band{"wlan0", 120, 9}, Band{"wlan0", 420, 3},
                          Band{"wlan0", -1, 1}, Band{"wlan0", 0, 0}, Band{"ccmni0", -7, 0}}) {
        auto r = make(b.name);
        r->speed = b.speed;
        r->caclInterfaceLevel();
        EXPECT_EQ(b.level, r->level) << b.name << " " << b.speed;
    }
    // One band down needs 20 ms more than the speed of the last accepted level.
    auto r = make("wlan0");
    r->level = 11;
    r->levelSpeed = 110;
    r->speed = 125;
    r->caclInterfaceLevel();
    EXPECT_EQ(11, r->level);
    EXPECT_EQ(110, r->levelSpeed);
    r->speed = 130;
    r->caclInterfaceLevel();
    EXPECT_EQ(9, r->level);
    EXPECT_EQ(130, r->levelSpeed);
    // A jump over two bands is taken at once.
    r->speed = 131 + 200;
    r->caclInterfaceLevel();
    EXPECT_EQ(5, r->level);
}

TEST_F(InterfaceRttTest, FiveMissesFailTheLinkAndOneSampleBringsItBack) {
    auto r = make("wlan0");
    r->setSpeed(100);
    for (int i = 0; i < 4; ++i) r->setSpeed(-1);
    EXPECT_EQ(4, r->missCount);
    EXPECT_EQ(100, r->speed);  // bridged with the last sample
    EXPECT_EQ(11, r->level);
    for (int n = 1; n <= 4; ++n) {
        EXPECT_TRUE(log.contains("setSpeed: SLA_PING Ping Miss for RTT interface (wlan0) num ping miss = (" +
                                 std::to_string(n) + ") "));
    }
    r->setSpeed(-1);
    EXPECT_EQ(-1, r->speed);
    EXPECT_EQ(1, r->level);
    EXPECT_TRUE(log.contains("setSpeed: SLA_PING Ping FAIL for RTT interface (wlan0) (calc = -1)(old speed = 100) "
                             "(new prev = 500) (alpha_percent = 50)"));
    r->setSpeed(-1);  // at the limit: no more miss lines
    EXPECT_EQ(5u, log.count("Ping Miss"));
    EXPECT_EQ(2u, log.count("Ping FAIL"));
    EXPECT_EQ((Hist{100, 100, 100, 100, 100, 500, 500}), r->m_longpreviousSpeed);
    EXPECT_EQ((Hist{100, 500, 500}), r->m_shortpreviousSpeed);

    r->setSpeed(50);
    EXPECT_EQ(4, r->missCount);
    // short (100+500+500)/3 = 366, long 1500/7 = 214: 183 + 107.
    EXPECT_EQ(290, r->speed);
    EXPECT_EQ(7, r->level);
}

TEST_F(InterfaceRttTest, RawRecordsAlphaExtremesAndHistoryLengths) {
    auto raw = make("wlan0", 1);
    raw->setSpeed(70);
    raw->setSpeed(-1);
    EXPECT_EQ(-1, raw->speed);
    EXPECT_EQ(0, raw->level);
    EXPECT_TRUE(raw->m_longpreviousSpeed.empty());
    EXPECT_EQ(2u, log.count("SLA_PING Ping RTT interface (wlan0) num ping rtt = (0) "));
    auto empty = make("rmnet_data0");  // a miss on an empty history counts as 500
    empty->setSpeed(-1);
    EXPECT_EQ(500, empty->speed);
    EXPECT_EQ((Hist{500}), empty->m_longpreviousSpeed);
    EXPECT_EQ(2, empty->level);

    struct Case { const char* alpha; int speed; };
    for (const Case& c : {Case{"100", 25}, Case{"0", 30}, Case{"50", 27}}) {
        params->setValue("alpha_percent", c.alpha);
        auto r = make("wlan0");
        r->m_longpreviousSpeed = {10, 20, 30, 40};
        r->m_shortpreviousSpeed = {20, 30, 40};
        r->setSpeed(1000);
        EXPECT_EQ(c.speed, r->speed) << "alpha " << c.alpha;
    }
    auto r = make("wlan0");
    for (int i = 1; i <= 12; ++i) r->setSpeed(i * 10);
    EXPECT_EQ((Hist{30, 40, 50, 60, 70, 80, 90, 100, 110, 120}), r->m_longpreviousSpeed);
    EXPECT_EQ((Hist{100, 110, 120}), r->m_shortpreviousSpeed);
}

TEST_F(InterfaceRttTest, NamesOverFourteenCharactersAreRefused) {
    std::unique_ptr<InterfaceRtt> ok(InterfaceRtt::create("rmnet_data0123", 5, false));
    ASSERT_NE(nullptr, ok);
    EXPECT_STREQ("rmnet_data0123", ok->ifname);
    EXPECT_EQ(nullptr, InterfaceRtt::create("rmnet_data01234", 5, false));
    EXPECT_EQ(nullptr, InterfaceRtt::create("", 5, false));
    EXPECT_TRUE(log.contains("E/MUX-Vord-SlaPing: InterfaceRtt interface name \"rmnet_data01234\" is empty or longer than 14"));
}

TEST(TcpingTest, RandomStringIsFiftyEightAlphanumericsOnAZeroedBuffer) {
    char buffer[60] = {};
    EXPECT_EQ(0, Tcping::genRandomString(60, buffer));
    ASSERT_EQ(58u, strlen(buffer));
    for (int i = 0; i < 58; ++i) EXPECT_TRUE(isalnum(static_cast<unsigned char>(buffer[i]))) << i;
    char tiny[2] = {'x', 'y'};
    Tcping::genRandomString(2, tiny);
    EXPECT_EQ('x', tiny[0]);
    EXPECT_EQ('\0', tiny[1]);
}

}  // namespace
