// The link lab's pure pieces: link settings (their names reach `ip` command lines)
// and the delay line that holds a link's packets.
#include <gtest/gtest.h>

#include "DelayLine.h"
#include "LabConfig.h"

namespace linklab {
namespace {

TEST(LinkLabConfig, ParsesNameAndOneWayDelayAndRefusesTheRest) {
    struct Case {
        const char* text;
        bool ok;
        const char* name;
        int delayMs;
    } cases[] = {
        {"wlan0=20", true, "wlan0", 20},
        {"rmnet_data0=0", true, "rmnet_data0", 0},
        {"abcdefghijklmno=10000", true, "abcdefghijklmno", 10000},  // 15 characters
        {"abcdefghijklmnop=1", false, "", 0},                       // 16: too long
        {"wlan0=10001", false, "", 0},
        {"wlan0=-1", false, "", 0},
        {"wlan0=2x", false, "", 0},
        {"wlan0=", false, "", 0},
        {"wlan0", false, "", 0},
        {"=5", false, "", 0},
        {"lo=5", false, "", 0},
        {"main=5", false, "", 0},  // a route table of its own already
        {"all=5", false, "", 0},   // sysctl's name for every interface
        {"wl an=5", false, "", 0},
        {"-wlan=5", false, "", 0},
        {"wlan0;reboot=5", false, "", 0},
    };
    for (const Case& c : cases) {
        LinkConfig config;
        std::string error;
        ASSERT_EQ(parseLinkArg(c.text, 2, config, error), c.ok) << c.text;
        if (!c.ok) {
            EXPECT_NE(error, "") << c.text;
            continue;
        }
        EXPECT_EQ(config.name, c.name);
        EXPECT_EQ(config.delayMs, c.delayMs);
    }
    LinkConfig config;
    std::string error;
    ASSERT_TRUE(parseLinkArg("wlan1=5", 2, config, error));
    EXPECT_EQ(config.handsetAddr(), "10.66.2.2");
    EXPECT_EQ(config.peerAddr(), "10.66.2.1");
    EXPECT_EQ(config.table(), 102);

    EXPECT_TRUE(validLabName("vlab-123-0"));
    for (const char* bad : {"", "-x", ".x", "a/b", "a b", "x$(id)",
                            "a-name-that-is-much-longer-than-forty-characters"}) {
        EXPECT_FALSE(validLabName(bad)) << bad;
    }
    std::string addr;
    int port = 0;
    EXPECT_TRUE(parseAddrPort("198.18.0.10:8080", addr, port));
    EXPECT_EQ(addr, "198.18.0.10");
    EXPECT_EQ(port, 8080);
    for (const char* bad : {"198.18.0.10", "host:80", "1.1.1.1:0", "1.1.1.1:65536", ":443"}) {
        EXPECT_FALSE(parseAddrPort(bad, addr, port)) << bad;
    }
}

constexpr DelayLine::Nanos kMs = 1000000;

TEST(LinkLabDelayLine, ReleasesEachPacketAfterItsDelayInArrivalOrder) {
    DelayLine line;
    line.push(0, 20 * kMs, "a", 1);
    line.push(5 * kMs, 20 * kMs, "b", 1);
    EXPECT_EQ(line.nextRelease(), 20 * kMs);
    std::string p;
    EXPECT_FALSE(line.popDue(20 * kMs - 1, p));
    ASSERT_TRUE(line.popDue(20 * kMs, p));
    EXPECT_EQ(p, "a");
    EXPECT_FALSE(line.popDue(24 * kMs, p));
    ASSERT_TRUE(line.popDue(30 * kMs, p));
    EXPECT_EQ(p, "b");
    EXPECT_TRUE(line.empty());
}

TEST(LinkLabDelayLine, AShortenedDelayDoesNotOvertakeHeldPackets) {
    DelayLine line;
    line.push(0, 50 * kMs, "slow", 4);
    line.push(1 * kMs, 5 * kMs, "fast", 4);  // delay cut from 50 to 5 ms meanwhile
    std::string p;
    EXPECT_FALSE(line.popDue(10 * kMs, p));
    ASSERT_TRUE(line.popDue(50 * kMs, p));
    EXPECT_EQ(p, "slow");
    ASSERT_TRUE(line.popDue(50 * kMs, p));
    EXPECT_EQ(p, "fast");
    line.push(60 * kMs, 5 * kMs, "x", 1);
    line.clear();  // a cut drops what is held
    EXPECT_TRUE(line.empty());
}

}  // namespace
}  // namespace linklab
