// Command 1, the interface list: what a new list removes and adds against the
// previous one, in which order, and in which order one interface goes through
// the registry, the statistics channel and the rules.
#include <gtest/gtest.h>
#include <string.h>
#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include <memory>
#include <string>
#include <vector>

#include "UnitRegistry.h"
#include "control/ControlState.h"
#include "control/InterfaceCommands.h"
#include "sla/SlaStatsImpl.h"

namespace {

using Strings = std::vector<std::string>;
using vord::test::TempRoot;

class InterfaceListTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unittest::stubRuleTools();
        TempRoot::writeAt(vord::resolvePath("/proc/sla/config"), "");
        // Blocks that map at once (not ready: no rates needed here).
        for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) {
            TempRoot::writeAt(vord::resolvePath(std::string("/proc/sla/") + name + "_mmap"),
                              std::string(20480, '\0'));
        }
        setControlParameters(Parameters::instance());
    }
    void TearDown() override {
        updateInterfaces("");
        SlaStatsImpl::finalize();
        setControlParameters(nullptr);
    }

    // Sends `list`; returns the removals ("-name") and additions ("+name") in order.
    Strings send(const char* list) {
        vord::LogCapture log;
        updateInterfaces(list);
        Strings ops;
        for (const std::string& line : log.lines()) {
            for (const char* op : {"remove Interfaces is ", "add Interfaces is "}) {
                size_t at = line.find(op);
                if (at != std::string::npos) {
                    ops.push_back((op[0] == 'r' ? "-" : "+") + line.substr(at + strlen(op)));
                }
            }
        }
        return ops;
    }
    static Strings registered() {
        Strings names;
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        for (const auto& entry : Parameters::instance()->interfaceInfoMap())
            names.push_back(entry.first);
        return names;
    }
};

TEST_F(InterfaceListTest, RemovalsBeforeAdditionsAgainstThePreviousList) {
    const struct {
        const char* list;
        Strings ops;
        Strings registry;  // key order
    } steps[] = {
        {"wlan0", {"+wlan0"}, {"wlan0"}},
        {"wlan0", {}, {"wlan0"}},  // the same list twice
        {"wlan0,rmnet_data0", {"+rmnet_data0"}, {"rmnet_data0", "wlan0"}},
        {"rmnet_data0,wlan0", {}, {"rmnet_data0", "wlan0"}},  // order does not matter
        {"wlan0,rmnet_data0", {}, {"rmnet_data0", "wlan0"}},
        {"wlan1", {"-wlan0", "-rmnet_data0", "+wlan1"}, {"wlan1"}},
        {"wlan1,wlan0,wlan0",
         {"+wlan0", "+wlan0"},
         {"wlan0", "wlan1"}},                      // listed twice: added twice
        {"", {"-wlan1", "-wlan0", "-wlan0"}, {}},  // empty: every previous name goes
        {"", {}, {}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(std::string("list \"") + step.list + "\"");
        EXPECT_EQ(send(step.list), step.ops);
        EXPECT_EQ(registered(), step.registry);
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        EXPECT_EQ(SlaStatsImpl::instance()->slaInterfaceMap().size(), step.registry.size());
    }
    EXPECT_TRUE(interfacelist.empty());
    EXPECT_TRUE(preinterfacelist.empty());
}

// An add goes registry, statistics channel, rules; a remove takes the rules off
// first, while the record still exists.
TEST_F(InterfaceListTest, OneInterfaceThroughTheSubsystemsInOrder) {
    const struct {
        const char* list;
        Strings needles;
    } steps[] = {
        {"wlan0",
         {"add Interfaces is wlan0", "m_interfaceInfoMap add wlan0 success!", "initMmap + wlan0",
          "-N vexo_fw_wlan0", "preinterfacelist is wlan0"}},
        {"",
         {"remove Interfaces is wlan0", "-X vexo_fw_wlan0", "m_interfaceInfoMap del wlan0 success!",
          "m_slaInterfaceMap del wlan0 success!"}},
    };
    for (const auto& step : steps) {
        vord::LogCapture log;
        updateInterfaces(step.list);
        const Strings lines = log.lines();
        size_t at = 0;
        for (const std::string& needle : step.needles) {
            while (at < lines.size() && lines[at].find(needle) == std::string::npos) ++at;
            EXPECT_LT(at, lines.size()) << "missing or out of order: " << needle << "\n"
                                        << ::testing::PrintToString(lines);
        }
    }
}

}  // namespace
