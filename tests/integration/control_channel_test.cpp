// The control channel's own rules with the real daemon: who holds it, what a tool
// it starts inherits, short and unterminated records, and the shutdown (its order,
// its priorities, a stop requested at start, records queued behind a command).
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>
#include <vector>

#include "DaemonTest.h"

namespace {

using namespace vord::test;

const std::string kBlock(20480, '\0');  // a block file the daemon maps at once (not ready)

// The client's credentials in the log and the signal state of the tools the
// control thread starts; then a stop while a command runs: that command ends,
// the records queued behind it are never dispatched, and the shutdown goes on.
TEST_F(DaemonTest, ClientCredentialsToolSignalStateAndAStopBehindACommand) {
    // The tool reports its own signal mask and ignored signals, read with shell
    // builtins only (no child, whose start would change the shell's mask).
    root.writeFile(
        "/system/bin/iptables-wrapper-1.0",
        "#!/bin/sh\nwhile IFS= read -r l; do case \"$l\" in Sig[BI]*) echo \"$l\";; esac; "
        "done < /proc/self/status >> '" +
            root.at("/record/signals") + "'\n",
        0755);
    root.writeFile("/proc/sla/wlan0_mmap", kBlock);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    root.writeFile("/record/signals", "");  // from here on: tools run by the control thread
    ASSERT_TRUE(client.connect() && client.send(1, "wlan0"));
    ASSERT_TRUE(daemon.waitForLog("-A vexo_nat_POSTROUTING_MUX -o wlan0")) << daemon.log();
    client.close();

    const std::string who = "pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid());
    ASSERT_TRUE(daemon.waitForLog("control client hung up: " + who)) << daemon.log();
    EXPECT_EQ("", missingInOrder(daemon.log(), {"I/MUX-Vord-VordSocket-Server: control client accepted: " + who,
                                                "socket EPOLLHUP error",
                                                "I/MUX-Vord-VordSocket-Server: control client hung up: " + who}))
        << daemon.log();

    // Nothing blocked, nothing ignored. glibc's posix_spawn ignores its two
    // internal signals (32 and 33) in every child it starts; no other may be.
    const std::string signals = root.readFile("/record/signals");
    std::istringstream lines(signals);
    int seen = 0;
    for (std::string name, hex; lines >> name >> hex; ++seen) {
        uint64_t bits = std::stoull(hex, nullptr, 16);
        if (name == "SigIgn:") bits &= ~(uint64_t{3} << 31);
        EXPECT_EQ(bits, 0u) << name << " " << hex;
    }
    EXPECT_GE(seen, 10) << signals;  // every command of the add

    // A whitelist command whose rule tool takes 2 s. Once the loop has written
    // wlan0's cascade it takes no lock the command holds, so it sees the stop
    // while the command still runs.
    ASSERT_TRUE(daemon.waitForLog("Updated Ratio")) << daemon.log();
    root.writeFile("/system/bin/iptables-wrapper-1.0",
                   "#!/bin/sh\ncase \"$*\" in *10123*) : > '" + root.at("/record/slow") +
                       "'; sleep 2; : > '" + root.at("/record/slow-done") + "';; esac\n",
                   0755);
    ASSERT_TRUE(client.connect(std::chrono::seconds(10)) && client.send(2, "10123"));
    for (const char* queued : {"queued-1", "queued-2", "queued-3"}) ASSERT_TRUE(client.send(12, queued));
    ASSERT_TRUE(waitFor([&] { return access(root.at("/record/slow").c_str(), F_OK) == 0; }, std::chrono::seconds(5)));
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
    EXPECT_EQ(0, access(root.at("/record/slow-done").c_str(), F_OK));  // the running command ended
    EXPECT_EQ("", missingInOrder(daemon.log(), {"socket Thread exit", "Mux disabled, starting cleanup..."}))
        << daemon.log();
    EXPECT_EQ(daemon.countLog("queued-"), 0u);
    EXPECT_TRUE(daemon.alive());
}

std::string record(int32_t id, int32_t length, const std::string& text) {
    std::string bytes(8, '\0');
    memcpy(&bytes[0], &id, 4);
    memcpy(&bytes[4], &length, 4);
    return bytes + text + std::string(1024 - std::min<size_t>(text.size(), 1024), '\0');
}

// Records written back to back are dispatched in order, each one whole: records
// split across two writes are reassembled, a length over 1023 drops the record,
// text without a NUL ends at the last byte of `message`, a client that hangs up
// mid-record has that part dropped, and 200 clients that each write one record
// and hang up at once are all served. The counters tell served from refused.
TEST_F(DaemonTest, EveryRecordIsServedWholeAndInOrder) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(client.connect());
    const struct {
        int id;
        std::string text;
        int length;
    } records[] = {{4, "10.0.0.1", 8},   {4, "10.0.0.1", 8},  {0, "zero", 4}, {10, "drop-me", 1024},
                   {10, std::string(1023, 'k'), 1023}, {15, "fifteen", 7}, {10, "done", 4}};
    std::vector<std::string> logged;
    for (const auto& r : records) {
        ASSERT_TRUE(client.send(r.id, r.text, r.length));
        if (r.length < 1024) {
            logged.push_back("recv msg: msg.id=" + std::to_string(r.id) + ", msg.length=" +
                             std::to_string(r.length) + ", msg.message=[" + r.text + "]");
        }
    }
    ASSERT_TRUE(daemon.waitForLog("msg.message=[done]")) << daemon.log();
    EXPECT_EQ("", missingInOrder(daemon.log(), logged)) << daemon.log();
    EXPECT_EQ(daemon.countLog("drop-me"), 0u);
    EXPECT_EQ(daemon.countLog("unknow mesage!!!"), 2u);  // ids 0 and 15
    EXPECT_EQ(daemon.countLog("populateWifiGateway = 10.0.0.1"), 1u);  // the repeat is skipped

    // Each record in two writes, split anywhere (in the header too), with a pause
    // between them, and one without a NUL in its text.
    for (int i = 0; i < 30; ++i) {
        const std::string text = "split-" + std::to_string(100 + i) + std::string(600, 'u');
        const std::string bytes = record(10, 609, text);
        const size_t cut = 1 + static_cast<size_t>(i) * 34;
        ASSERT_TRUE(client.sendRaw(bytes.substr(0, cut)));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_TRUE(client.sendRaw(bytes.substr(cut)));
    }
    ASSERT_TRUE(client.sendRaw(record(10, 1023, std::string(1024, 'y'))));
    ASSERT_TRUE(daemon.waitForLog("msg.length=1023, msg.message=[" + std::string(1023, 'y') + "]")) << daemon.log();
    EXPECT_EQ(daemon.countLog("msg.id=10, msg.length=609, msg.message=[split-1"), 30u) << daemon.log();
    EXPECT_EQ(daemon.countLog(std::string(1024, 'y')), 0u);
    EXPECT_EQ(daemon.countLog("recv msg: "), 37u) << daemon.log();
    ASSERT_TRUE(client.sendRaw(record(10, 3, "cut").substr(0, 100)));
    client.close();
    ASSERT_TRUE(daemon.waitForLog("control client hung up in the middle of a record: 100 of 1032 bytes dropped"));

    std::vector<std::thread> clients;
    for (int i = 0; i < 200; ++i) {
        clients.emplace_back([this, i] {
            ControlClient one(root);
            EXPECT_TRUE(one.connect(std::chrono::seconds(60)) && one.send(10, "client-" + std::to_string(i)));
        });
    }
    for (std::thread& t : clients) t.join();
    ASSERT_TRUE(daemon.waitForLog("msg.message=[client-", std::chrono::seconds(30), 200)) << daemon.log();
    // Refused: ids 0 and 15, the length of 1024, the record cut short.
    ASSERT_TRUE(waitSnapshot([](const vord::status::Snapshot& s) { return s.controlServed == 235; }))
        << last.controlServed;
    EXPECT_EQ(last.controlRefused, 4u);
}

// The property reads 2 before the start: start-up completes, one iteration runs
// (evaluation, then the sleep), then the shutdown in its order. The config channel
// and the rule tools write into one file, so their order shows there.
TEST_F(DaemonTest, StopAtStartRunsOneIterationThenShutsDownInOrder) {
    ASSERT_EQ(symlink(root.at("/record/commands").c_str(), root.at("/proc/sla/config").c_str()), 0);
    root.writeFile("/proc/sla/wlan0_mmap", kBlock);  // magic 0: every evaluation logs "not ready"
    root.setProperty("vendor.sla.enabled", "2");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=1500\n"));
    // The first evaluation runs right after the control thread starts; wlan0 comes
    // in during the sleep that follows it.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(client.connect() && client.send(1, "wlan0"));
    ASSERT_TRUE(daemon.waitForLog("Vord exiting", std::chrono::seconds(15))) << daemon.log();

    const std::string log = daemon.log();
    EXPECT_EQ("", missingInOrder(log, {"I/MUX-Vord-daemon: Vord (SLA+SLS) 3.0.4.5 starting daemon",
                                       "initMmap + wlan0", "I/MUX-Vord-VordSocket-Server: socket Thread exit",
                                       "E/MUX-Vord-daemon: Mux disabled, starting cleanup...",
                                       "I/MUX-Vord-daemon: Vord exiting"}))
        << log;
    // No second evaluation: it would find wlan0's block not ready.
    EXPECT_EQ(daemon.countLog("SLA stat colletct is not ready"), 0u) << log;

    std::string written = root.recordedCommands();
    std::replace(written.begin(), written.end(), '\0', '\n');
    const std::string ipt = "/system/bin/iptables-wrapper-1.0 -w -t ";
    EXPECT_EQ("", missingInOrder(written, {"iface=wlan0\nenable=1", ipt + "mangle -N vexo_fw_wlan0", "enable=0",
                                           ipt + "mangle -D OUTPUT -j vexo_MUX_wapper",
                                           ipt + "mangle -X vexo_SLS", ipt + "mangle -X vexo_fw_wlan0"}))
        << written;
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
