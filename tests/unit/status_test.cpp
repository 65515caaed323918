// The status snapshot: its text and reader, the change detection of the writer,
// and what the collector takes from the registry, the aggregation map and the
// counters.
#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/stat.h>

#include <mutex>

#include <vord/RootPath.h>

#include "SlaTestSupport.h"
#include "status/Counters.h"
#include "status/StatusCollector.h"
#include "status/StatusText.h"
#include "status/StatusWriter.h"
#include "TempRoot.h"

namespace vord {
namespace status {
namespace {

Snapshot sample() {
    Snapshot s;
    s.pid = 4242;
    s.periodMs = 1000;
    s.updatedMonoMs = 12345678;
    s.updatedWallMs = 1763859840123;
    LinkStatus wlan;
    wlan.name = wlan.table = "wlan0";
    wlan.mark = "0x200000";
    wlan.aggregated = wlan.probed = true;
    wlan.rateKbps = 1200;
    wlan.share = 0.75f;
    wlan.rttMs = -1;
    wlan.level = 1;
    wlan.misses = 3;
    wlan.rssiPenaltyMs = 40;
    LinkStatus vlan;  // a name with a dot, neither aggregated nor probed
    vlan.name = vlan.table = "eth0.100";
    vlan.mark = "0x400000";
    vlan.metered = vlan.slave = true;
    s.links = {wlan, vlan};
    s.mode = "gaming+voice-call";
    s.engine = true;
    s.current = "wlan0";
    s.switches = 2;
    s.probeServer = "1.1.1.1";
    s.probePort = 443;
    s.slaWhitelist = 2;
    s.gateways = s.dwSelect = 1;
    s.controlServed = 7;
    s.ruleCommandsRun = 1u << 31;
    s.linkSwitches = 5;
    return s;
}

TEST(StatusTextTest, RoundTripKeepsEveryFieldAndEveryValueOnItsLine) {
    Snapshot s = sample();
    const std::string text = format(s);
    Snapshot back;
    std::string error;
    ASSERT_TRUE(parse(text, &back, &error)) << error << "\n" << text;
    EXPECT_TRUE(sameContent(s, back)) << format(back);
    EXPECT_EQ(s.updatedMonoMs, back.updatedMonoMs);
    EXPECT_EQ(s.updatedWallMs, back.updatedWallMs);
    EXPECT_EQ(text, format(back));
    EXPECT_NE(text.find("link.eth0.100.table=eth0.100\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("link.eth0.100.rate_kbps"), std::string::npos) << text;
    s.probeServer = "1.1.1.1\r\nend=1";  // control characters
    ASSERT_TRUE(parse(format(s), &back, &error)) << error;
    EXPECT_EQ("1.1.1.1??end=1", back.probeServer);
    const std::pair<int, bool> modes[] = {{0, false}, {1, false}, {2, false}, {0, true}, {2, true}};
    const char* names[] = {"off", "gaming", "game-mode", "voice-call", "game-mode+voice-call"};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(names[i], selectionMode(modes[i].first, modes[i].second));
}

TEST(StatusTextTest, OnlyCompleteSnapshotsParse) {
    const std::string text = format(sample());
    Snapshot out;
    std::string error;
    // Every cut of the file, as a reader racing a plain rewrite would see it.
    for (size_t n = 0; n < text.size(); ++n) {
        ASSERT_FALSE(parse(text.substr(0, n), &out, &error)) << "cut at " << n;
    }
    auto edited = [&](const std::string& from, const std::string& to) {
        std::string t = text;
        size_t at = t.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? t : t.replace(at, from.size(), to);
    };
    const struct {
        std::string text;
        const char* why;
    } bad[] = {
        {edited("version=1\n", "version=2\n"), "unsupported format version 2"},
        {edited("pid=4242\n", ""), "missing key pid"},
        {edited("selection.probe_port=443", "selection.probe_port=44x"), "bad value of selection.probe_port"},
        {edited("state=running", "state=idle"), "bad value of state"},
        {edited("link.wlan0.share=0.7500\n", ""), "only one of rate_kbps and share"},
        {edited("link.wlan0.misses=3\n", ""), "only some of the selection fields"},
        {edited("link.eth0.100.mark=0x400000\n", ""), "lacks mark"},
        {edited("updated_mono=12345.678", "updated_mono=12345.6"), "bad value of updated_mono"},
        {edited("features.gateways=1\n", "features.gateways\n"), "not key=value"},
        {text + "pid=1\n", "text after the end line"},
        {edited("end=1\n", "link.wlan0.level=2\nend=1\n"), "link wlan0 appears twice"},
    };
    for (const auto& b : bad) {
        error.clear();
        EXPECT_FALSE(parse(b.text, &out, &error)) << b.why;
        EXPECT_NE(error.find(b.why), std::string::npos) << "got: " << error;
    }
    // Keys this reader does not know are skipped.
    EXPECT_TRUE(parse(edited("end=1\n", "selection.future=x\nend=1\n"), &out, &error)) << error;
    EXPECT_TRUE(parse(edited("link.wlan0.slave=0\n", "link.wlan0.slave=0\nlink.wlan0.future=1\n"), &out, &error))
        << error;
}

TEST(StatusWriterTest, WritesOnChangeAndOnHeartbeatOnly) {
    // A directory of its own, created by the writer.
    StatusWriter writer("/writer-test/a/status");
    const std::string path = resolvePath("/writer-test/a/status");
    Snapshot s = sample();  // period 1000 ms: heartbeat 1500 ms
    EXPECT_TRUE(writer.update(s, 10000, 1));
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777u);
    EXPECT_NE(0, access(resolvePath("/writer-test/a/.status.tmp").c_str(), F_OK)) << "temporary file left";

    Snapshot same = sample();
    EXPECT_FALSE(writer.update(same, 11000, 2));  // unchanged, younger than the heartbeat
    EXPECT_EQ(10000, s.updatedMonoMs);
    Snapshot changed = sample();
    changed.controlRefused = 1;
    EXPECT_TRUE(writer.update(changed, 11100, 3));  // changed: written at once
    Snapshot again = changed;
    EXPECT_FALSE(writer.update(again, 12599, 4));
    EXPECT_TRUE(writer.update(again, 12600, 5));  // heartbeat
    Snapshot onDisk;
    std::string error;
    ASSERT_TRUE(parse(test::readWholeFile(path), &onDisk, &error)) << error;
    EXPECT_EQ(12600, onDisk.updatedMonoMs);
    EXPECT_EQ(1u, onDisk.controlRefused);
    EXPECT_NE(0, access(resolvePath("/writer-test/a/.status.tmp").c_str(), F_OK)) << "temporary file left";
}

using StatusCollectorTest = slatest::SlaFixture;

TEST_F(StatusCollectorTest, LinksCarryRegistryAggregationAndCountersCarryEvents) {
    link("wlan0", false);
    link("rmnet_data0", true);
    ASSERT_TRUE(impl->enableSLA(true));
    slatest::registerInterface("wlan1", false);  // no aggregation record yet
    {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        wrapper("wlan0")->linkRate = 900;
        wrapper("wlan0")->ratio = 0.5f;
    }
    const uint64_t refused = counters().controlRecordsRefused.load();
    bump(counters().controlRecordsRefused);
    Parameters* params = Parameters::instance();
    params->setGamingRunning(2);

    Snapshot s;
    collect(params, impl, Snapshot(), &s);
    ASSERT_EQ(3u, s.links.size());
    EXPECT_EQ("rmnet_data0", s.links[0].name);
    EXPECT_TRUE(s.links[0].metered);
    EXPECT_TRUE(s.links[0].aggregated);
    EXPECT_EQ("wlan0", s.links[1].name);
    EXPECT_EQ(900u, s.links[1].rateKbps);
    EXPECT_EQ(0.5f, s.links[1].share);
    EXPECT_FALSE(s.links[2].aggregated);
    EXPECT_EQ(refused + 1, s.controlRefused);
    EXPECT_EQ("game-mode", s.mode);
    EXPECT_EQ(getpid(), s.pid);

    Snapshot released;
    collect(params, nullptr, s, &released);  // aggregation released at shutdown
    EXPECT_FALSE(released.links[1].aggregated);
    params->setGamingRunning(0);
}

}  // namespace
}  // namespace status
}  // namespace vord
