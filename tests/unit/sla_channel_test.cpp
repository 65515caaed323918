// The configuration lines, the block mapping (a block cut short while mapped is
// skipped, never read) and the VoIP state file.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"
#include "TempRoot.h"

using namespace slatest;

namespace {

using namespace std::string_literals;
using SlaChannelTest = SlaFixture;

TEST_F(SlaChannelTest, ConfigLinesInOrderAndAnInterfaceChangeDisablesFirst) {
    EXPECT_TRUE(impl->enableSLA(true));
    link("wlan0", false);
    link("rmnet_data0", true);
    link("wlan1", false);
    EXPECT_TRUE(impl->updateSlaInterfacemap("wlan1", true));
    // Each line ends in its NUL byte.
    EXPECT_EQ("protocols=http,https\0ports=80,443\0enable=1\0enable=0\0protocols=http,https\0ports=80,443\0"
              "iface=rmnet_data0\0iface=wlan0\0iface=wlan1\0enable=1\0"s,
              vord::test::readWholeFile(config));
}

TEST_F(SlaChannelTest, ShortBlockUnreadFifoOrMissingModuleAreLoggedAndNothingBlocks) {
    registerInterface("wlan0", false);
    // An empty block file would fault on the first read.
    close(open(vord::resolvePath("/proc/sla/wlan0_mmap").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    vord::LogCapture log;
    EXPECT_FALSE(impl->initMmap());
    EXPECT_EQ(3u, log.count("is shorter than the statistics block"));
    unlink(vord::resolvePath("/proc/sla/wlan0_mmap").c_str());

    // A config channel nobody reads fails instead of blocking.
    unlink(config.c_str());
    ASSERT_EQ(0, mkfifo(config.c_str(), 0644));
    EXPECT_EQ(-1, impl->writeStatsConfFile("enable=1"));
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    // No module at all.
    vord::test::TempRoot bare;
    ASSERT_EQ(0, rmdir(bare.at("/proc/sla").c_str()));
    std::string previous = getenv("VORD_ROOT");
    setenv("VORD_ROOT", bare.path().c_str(), 1);
    EXPECT_FALSE(impl->enableSLA(true));
    impl->evalAndSetSLAInterfaceRatio();
    setenv("VORD_ROOT", previous.c_str(), 1);
    EXPECT_EQ(4u, log.count("E/MUX-Vord-SlaStatsImpl: open stats config file failed:No such file or directory"));
    EXPECT_EQ(3u, log.count("E/MUX-Vord-SlaStatsImpl: open mmap file failed:No such file or directory"));
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    ASSERT_EQ(1u, impl->slaInterfaceMap().size());
    EXPECT_EQ(nullptr, wrapper("wlan0")->stats);
}

TEST_F(SlaChannelTest, VoipTrackingLinesAndPeerState) {
    impl->enableSlaVoipState(true, "10123");
    impl->enableSlaVoipState(false, "10123");
    EXPECT_EQ("voip_uid=10123\0voip_enable=1\0voip_enable=0\0voip_uid=10123\0"s,
              vord::test::readWholeFile(config));

    const std::string voip = vord::resolvePath("/proc/sla/sla_voip_state");
    vord::LogCapture log;
    char address[32] = "keep", port[32] = "keep";
    EXPECT_EQ(-1, impl->getSlaVoipState(address, port));
    EXPECT_TRUE(log.contains("open voip state file failed:"));
    const struct { const char *text, *address, *port; } cases[] = {
        {"1234567", "keep", "keep"},                // no comma
        {"1,2", "keep", "keep"},                    // under 4 bytes
        {"16777343,20480", "16777343", "20480"}};  // 127.0.0.1, port 80
    for (const auto& c : cases) {
        vord::test::TempRoot::writeAt(voip, c.text);
        EXPECT_EQ(static_cast<int>(strlen(c.text)), impl->getSlaVoipState(address, port));
        EXPECT_STREQ(c.address, address) << c.text;
        EXPECT_STREQ(c.port, port) << c.text;
    }
    unlink(voip.c_str());
}

TEST_F(SlaChannelTest, ShrunkenBlockIsSkippedWithOneLineAndReadAgainWhenWhole) {
    sla::StatsBlock* block = link("wlan0", false);
    const std::vector<Rec> recs = steadyRecords();
    writeRecords(block, recs);
    ASSERT_TRUE(impl->initMmap());
    impl->setRatioApplier([](std::map<std::string, linkStatsWrapper_t*>&) { return 0; });
    const std::string path = vord::resolvePath("/proc/sla/wlan0_mmap");
    auto estimate = [&] {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        linkStatsWrapper_t* w = wrapper("wlan0");
        return w->stats->linkRateEstimate(&w->packCount, w->ifname);
    };
    EXPECT_EQ(1000u, estimate());  // 12800 bytes per 100 ms

    vord::LogCapture log;
    for (off_t size : {off_t(0), off_t(4096), off_t(sla::kStatsBlockSize - 1)}) {
        ASSERT_EQ(0, truncate(path.c_str(), size));
        EXPECT_EQ(0u, estimate()) << size;  // would have faulted reading the mapping
        impl->evalAndSetSLAInterfaceRatio();
    }
    EXPECT_EQ(1u, log.count("E/MUX-Vord-SlaStatsData: WLAN: statistics block of wlan0 holds 0 of "
                            "20480 bytes; skipped until it is whole"))
        << ::testing::PrintToString(log.lines());

    ASSERT_EQ(0, truncate(path.c_str(), sla::kStatsBlockSize));
    writeRecords(block, recs);  // the writable test mapping covers the file again
    EXPECT_EQ(1000u, estimate());
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaStatsData: WLAN: statistics block of wlan0 is whole again"));
}

}  // namespace
