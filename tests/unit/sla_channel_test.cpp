// The configuration lines, the block mapping and the VoIP state file.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <memory>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"
#include "TempRoot.h"
#include "sla/SlaStatsImpl.h"

using namespace slatest;

class SlaChannelTest : public SlaFixture {
  protected:
    void TearDown() override {
        SlaFixture::TearDown();
        unlink(vord::resolvePath("/proc/sla/sla_voip_state").c_str());
    }
    std::string written() { return vord::test::readWholeFile(config); }
    // The lines as the module receives them: each with its NUL byte.
    static std::string lines(std::initializer_list<const char*> list) {
        std::string out;
        for (const char* l : list) out.append(l, strlen(l) + 1);
        return out;
    }
    void writeVoip(const std::string& text) {
        FILE* f = fopen(vord::resolvePath("/proc/sla/sla_voip_state").c_str(), "w");
        fputs(text.c_str(), f);
        fclose(f);
    }
};

TEST_F(SlaChannelTest, EnableWritesEachLineWithItsNulByte) {
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_EQ(lines({"protocols=http,https", "ports=80,443", "enable=1"}), written());
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    EXPECT_TRUE(impl->slaInterfaceMap().empty());
}

TEST_F(SlaChannelTest, InterfacesAreAnnouncedInKeyOrderAndClassified) {
    BlockFile w0("wlan0"), w1("wlan1"), r0("rmnet_data0");
    registerInterface("wlan0", false);
    registerInterface("rmnet_data0", false);  // cellular by name even when not metered
    registerInterface("wlan1", true);         // metered Wi-Fi counts as WWAN
    EXPECT_TRUE(impl->enableSLA(true));
    EXPECT_EQ(lines({"protocols=http,https", "ports=80,443", "iface=rmnet_data0", "iface=wlan0",
                     "iface=wlan1", "enable=1"}),
              written());
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    auto& map = impl->slaInterfaceMap();
    ASSERT_EQ(3u, map.size());
    EXPECT_TRUE(map.at("wlan0")->stats->isWlan);
    EXPECT_FALSE(map.at("rmnet_data0")->stats->isWlan);
    EXPECT_FALSE(map.at("wlan1")->stats->isWlan);
}

TEST_F(SlaChannelTest, InterfaceChangeDisablesFirstAndRebuildsTheMap) {
    BlockFile w0("wlan0");
    registerInterface("wlan0", false);
    vord::LogCapture log;
    EXPECT_TRUE(impl->updateSlaInterfacemap("wlan1", false));
    EXPECT_EQ(lines({"enable=0", "protocols=http,https", "ports=80,443", "iface=wlan0", "enable=1"}),
              written());
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaStatsImpl: m_slaInterfaceMap del wlan1 success!"));
    EXPECT_TRUE(log.contains("initMmap + wlan0"));
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    EXPECT_NE(nullptr, impl->slaInterfaceMap().at("wlan0")->stats);
}

TEST_F(SlaChannelTest, ShortBlockFileIsNotMapped) {
    registerInterface("wlan0", false);
    // An empty block file (as O_CREAT leaves it) would fault on the first read.
    close(open(vord::resolvePath("/proc/sla/wlan0_mmap").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    vord::LogCapture log;
    EXPECT_FALSE(impl->initMmap());
    EXPECT_EQ(3u, log.count("is shorter than the statistics block"));
    impl->evalAndSetSLAInterfaceRatio();
    unlink(vord::resolvePath("/proc/sla/wlan0_mmap").c_str());
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    EXPECT_EQ(nullptr, impl->slaInterfaceMap().at("wlan0")->stats);
}

TEST_F(SlaChannelTest, MissingModuleLeavesWrappersWithoutStatistics) {
    vord::test::TempRoot bare;
    ASSERT_EQ(0, rmdir(bare.at("/proc/sla").c_str()));
    std::string previous = getenv("VORD_ROOT");
    setenv("VORD_ROOT", bare.path().c_str(), 1);
    registerInterface("wlan0", false);
    vord::LogCapture log;
    EXPECT_FALSE(impl->enableSLA(true));
    impl->evalAndSetSLAInterfaceRatio();
    setenv("VORD_ROOT", previous.c_str(), 1);

    EXPECT_EQ(4u, log.count("E/MUX-Vord-SlaStatsImpl: open stats config file failed:No such file or directory"));
    EXPECT_EQ(3u, log.count("E/MUX-Vord-SlaStatsImpl: open mmap file failed:No such file or directory"));
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    ASSERT_EQ(1u, impl->slaInterfaceMap().size());
    EXPECT_EQ(nullptr, impl->slaInterfaceMap().at("wlan0")->stats);
}

TEST_F(SlaChannelTest, VoipTrackingLinesAndPeerState) {
    impl->enableSlaVoipState(true, "10123");
    impl->enableSlaVoipState(false, "10123");
    EXPECT_EQ(lines({"voip_uid=10123", "voip_enable=1", "voip_enable=0", "voip_uid=10123"}), written());

    char address[32] = {}, port[32] = {};
    vord::LogCapture log;
    EXPECT_EQ(-1, impl->getSlaVoipState(address, port));
    EXPECT_TRUE(log.contains("open voip state file failed:"));

    writeVoip("16777343,20480");  // 127.0.0.1, port 80
    EXPECT_EQ(14, impl->getSlaVoipState(address, port));
    EXPECT_STREQ("16777343", address);
    EXPECT_STREQ("20480", port);

    for (const char* odd : {"1234567", "1,2"}) {  // no comma; under 4 bytes
        char a[32] = "keep", p[32] = "keep";
        writeVoip(odd);
        EXPECT_EQ(static_cast<int>(strlen(odd)), impl->getSlaVoipState(a, p));
        EXPECT_STREQ("keep", a);
        EXPECT_STREQ("keep", p);
    }
}

TEST_F(SlaChannelTest, ConfigFifoWithoutReaderFailsInsteadOfBlocking) {
    unlink(config.c_str());
    ASSERT_EQ(0, mkfifo(config.c_str(), 0644));
    vord::LogCapture log;
    EXPECT_EQ(-1, impl->writeStatsConfFile("enable=1"));
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));
}
