// The status snapshot: its text and reader, and the change detection of the
// writer. What the collector gathers is followed through the daemon in the
// integration tests.
#include "UnitSupport.h"

#include <sys/stat.h>

#include "status/StatusCollector.h"
#include "status/StatusText.h"
#include "status/StatusWriter.h"

namespace vord {
namespace status {
namespace {

Snapshot sample() {
    Snapshot s;
    s.pid = 4242;
    s.periodMs = 1000;
    s.updatedMonoMs = 12345678;
    s.updatedWallMs = 1763859840123;
    // name, mark, table, metered, slave; aggregated, rate, share; probed, rtt, level, misses, penalty
    LinkStatus wlan{"wlan0", "0x200000", "wlan0", false, false, true, 1200, 0.75f, true, -1, 1, 3, 40};
    wlan.probeFamily = "ipv6";
    // A name with a dot, neither aggregated nor probed.
    const LinkStatus vlan{"eth0.100", "0x400000", "eth0.100", true, true};
    s.links = {wlan, vlan};
    s.mode = "gaming+voice-call";
    s.engine = true;
    s.current = "wlan0";
    s.switches = 2;
    s.probeServer = "1.1.1.1";
    s.probePort = 443;
    s.lastSwitch = {true, 1763859839000, "wlan0", "rmnet_data0", "carrier-lost", "wlan0 lost carrier"};
    s.slaWhitelist = 2;
    s.gateways = s.dwSelect = 1;
    s.controlServed = 7;
    s.ruleCommandsRun = 1u << 31;
    s.ipv6Rules = true;
    s.ipv6RuleCommandsRun = s.ipv6RuleCommandsNotStarted = s.ipv6RuleGroupsFailed = 3;
    s.linkSwitches = 5;
    s.gamingUidList = "10123,10456";
    s.ruleCommandsFailed = 3;
    s.lastFailedCommand = "/system/bin/ip-wrapper-1.0 rule add fwmark 0x200000/0xce00000 table wlan0";
    s.lastFailedResult = "killed after 30 s";
    s.lastFailedOutput = "RTNETLINK answers: File exists\\x0a";
    return s;
}

TEST(StatusTextTest, RoundTripKeepsEveryFieldAndEveryValueOnItsLine) {
    Snapshot s = sample();
    const std::string text = format(s);
    Snapshot back;
    std::string error;
    ASSERT_TRUE(parse(text, &back, &error)) << error << "\n" << text;
    EXPECT_TRUE(sameContent(s, back)) << format(back);
    EXPECT_EQ(text, format(back));  // the update times too
    EXPECT_NE(text.find("link.eth0.100.table=eth0.100\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("link.eth0.100.rate_kbps"), std::string::npos) << text;
    s.probeServer = "1.1.1.1\r\nend=1";  // control characters
    ASSERT_TRUE(parse(format(s), &back, &error)) << error;
    EXPECT_EQ("1.1.1.1??end=1", back.probeServer);
}

TEST(StatusTextTest, OnlyCompleteSnapshotsParse) {
    const std::string text = format(sample());
    Snapshot out;
    std::string error;
    // Every cut of the file, as a reader racing a plain rewrite would see it.
    for (size_t n = 0; n < text.size(); ++n)
        ASSERT_FALSE(parse(text.substr(0, n), &out, &error)) << "cut at " << n;
    auto edited = [&](const std::string& from, const std::string& to) {
        const size_t at = text.find(from);
        return at == std::string::npos ? "no " + from : std::string(text).replace(at, from.size(), to);
    };
    const std::pair<std::string, const char*> bad[] = {
        {edited("version=1\n", "version=2\n"), "unsupported format version 2"},
        {edited("pid=4242\n", ""), "missing key pid"},
        {edited("link.wlan0.share=0.7500\n", ""), "only one of rate_kbps and share"},
        {edited("link.wlan0.misses=3\n", ""), "only some of the selection fields"},
        {edited("link.eth0.100.mark=0x400000\n", ""), "lacks mark"},
        {edited("selection.last_switch_to=rmnet_data0\n", ""), "only some of the selection.last_switch_ keys"},
        {text + "pid=1\n", "text after the end line"},
        {edited("end=1\n", "link.wlan0.level=2\nend=1\n"), "link wlan0 appears twice"},
    };
    for (const auto& b : bad) {
        error.clear();
        EXPECT_FALSE(parse(b.first, &out, &error)) << b.second;
        EXPECT_NE(error.find(b.second), std::string::npos) << "got: " << error;
    }
    // Keys an older daemon does not write are not required; keys this reader does
    // not know are skipped.
    EXPECT_TRUE(parse(edited("counters.rule_commands_failed=3\n", ""), &out, &error)) << error;
    EXPECT_TRUE(parse(edited("end=1\n", "selection.future=x\nend=1\n"), &out, &error)) << error;
    EXPECT_TRUE(parse(edited("link.wlan0.slave=0\n", "link.wlan0.slave=0\nlink.wlan0.x=1\n"), &out, &error)) << error;
}

TEST(StatusWriterTest, WritesOnChangeAndOnHeartbeatOnly) {
    StatusWriter writer("/writer-test/a/status");  // a directory of its own, created by the writer
    const std::string path = resolvePath("/writer-test/a/status");
    Snapshot s = sample(), changed = sample();  // period 1000 ms: heartbeat 1500 ms
    changed.controlRefused = 1;
    const struct { Snapshot* s; int64_t now; bool written; } steps[] = {
        {&s, 10000, true},       {&s, 11000, false},       // unchanged, younger than the heartbeat
        {&changed, 11100, true}, {&changed, 12599, false},  // changed: written at once
        {&changed, 12600, true}};                            // heartbeat
    for (const auto& step : steps) EXPECT_EQ(step.written, writer.update(*step.s, step.now, 1)) << step.now;
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 0777u);
    Snapshot onDisk;
    std::string error;
    ASSERT_TRUE(parse(test::readWholeFile(path), &onDisk, &error)) << error;
    EXPECT_EQ(12600, onDisk.updatedMonoMs);
    EXPECT_EQ(1u, onDisk.controlRefused);
    EXPECT_NE(0, access(resolvePath("/writer-test/a/.status.tmp").c_str(), F_OK)) << "temporary file left";
}

}  // namespace
}  // namespace status
}  // namespace vord
