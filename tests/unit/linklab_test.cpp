// The link lab's pure pieces: link settings (their names reach `ip` command lines)
// and the delay line that holds a link's packets.
#include <gtest/gtest.h>

#include "DelayLine.h"
#include "LabConfig.h"

namespace linklab {
namespace {

TEST(LinkLabConfig, ParsesNameAndOneWayDelayAndRefusesTheRest) {
    LinkConfig config;
    std::string error;
    const std::pair<const char*, int> good[] = {
            {"wlan0=20", 20}, {"rmnet_data0=0", 0}, {"abcdefghijklmno=10000", 10000}};  // 15 characters
    for (const auto& g : good) {
        ASSERT_TRUE(parseLinkArg(g.first, 2, config, error)) << g.first;
        EXPECT_EQ(config.name + "=" + std::to_string(config.delayMs), g.first);
    }
    for (const char* bad : {"abcdefghijklmnop=1", "wlan0=10001", "wlan0=-1", "wlan0=2x", "wlan0=", "wlan0",
                            "=5", "lo=5", "main=5" /* a route table already */, "all=5" /* sysctl: every link */,
                            "wl an=5", "-wlan=5", "wlan0;reboot=5"}) {
        error.clear();
        EXPECT_FALSE(parseLinkArg(bad, 2, config, error)) << bad;
        EXPECT_NE(error, "") << bad;
    }
    ASSERT_TRUE(parseLinkArg("wlan1=5", 2, config, error));
    config.index = 12;
    EXPECT_EQ(config.handsetAddr() + " " + config.peerAddr6() + " " + std::to_string(config.table()),
              "10.66.12.2 fd66:66:c::1 112");

    EXPECT_TRUE(validLabName("vlab-123-0"));
    for (const char* bad : {"", "-x", ".x", "a/b", "a b", "x$(id)",
                            "a-name-that-is-much-longer-than-forty-characters"}) {
        EXPECT_FALSE(validLabName(bad)) << bad;
    }
    std::string addr;
    int port = 0;
    EXPECT_TRUE(parseAddrPort("198.18.0.10:8080", addr, port));
    EXPECT_EQ(addr + ":" + std::to_string(port), "198.18.0.10:8080");
    EXPECT_TRUE(parseAddrPort("[2001:2::10]:443", addr, port));
    EXPECT_EQ(addr + " " + std::to_string(port), "2001:2::10 443");
    for (const char* bad : {"198.18.0.10", "host:80", "1.1.1.1:0", "1.1.1.1:65536", ":443", "2001:2::10:80", "[1.1.1.1]:80"})
        EXPECT_FALSE(parseAddrPort(bad, addr, port)) << bad;
}

constexpr DelayLine::Nanos kMs = 1000000;

TEST(LinkLabDelayLine, ReleasesEachPacketAfterItsDelayInArrivalOrder) {
    DelayLine line;
    line.push(0, 20 * kMs, "a", 1);
    line.push(5 * kMs, 20 * kMs, "b", 1);
    line.push(6 * kMs, 1 * kMs, "fast", 4);  // delay cut meanwhile: does not overtake held packets
    EXPECT_EQ(line.nextRelease(), 20 * kMs);
    // What each time releases, "-" for nothing.
    auto pop = [&](DelayLine::Nanos now) {
        std::string p;
        return line.popDue(now, p) ? p : "-";
    };
    for (const auto& step : std::vector<std::pair<DelayLine::Nanos, std::string>>{
                 {20 * kMs - 1, "-"}, {20 * kMs, "a"}, {24 * kMs, "-"}, {25 * kMs, "b"}, {25 * kMs, "fast"}})
        EXPECT_EQ(pop(step.first), step.second) << step.first;
    line.push(60 * kMs, 5 * kMs, "x", 1);
    line.clear();  // a cut drops what is held
    EXPECT_TRUE(line.empty());
}

}  // namespace
}  // namespace linklab
