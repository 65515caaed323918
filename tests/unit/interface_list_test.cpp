// Command 1, the interface list: what a new list removes and adds against the
// previous one, in which order, and in which order one interface goes through
// the registry, the statistics channel and the rules.
#include "UnitSupport.h"
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
        for (const char* name : {"wlan0", "wlan1", "rmnet_data0"})
            TempRoot::writeAt(vord::resolvePath(std::string("/proc/sla/") + name + "_mmap"), std::string(20480, '\0'));
        setControlParameters(Parameters::instance());
    }
    void TearDown() override {
        updateInterfaces("");
        SlaStatsImpl::finalize();
        setControlParameters(nullptr);
    }
};

// An add goes registry, statistics channel, rules; a remove takes the rules off
// first, while the record still exists.
TEST_F(InterfaceListTest, RemovalsBeforeAdditionsAgainstThePreviousList) {
    const struct {
        const char* list;
        Strings ops;       // "-name" removed, "+name" added, in order
        Strings registry;  // key order
        Strings order;     // log lines that come in this order
    } steps[] = {
        {"wlan0", {"+wlan0"}, {"wlan0"},
         {"m_interfaceInfoMap add wlan0 success!", "initMmap + wlan0", "-N vexo_fw_wlan0", "preinterfacelist is wlan0"}},
        {"wlan0", {}, {"wlan0"}, {}},  // the same list twice
        {"wlan0,rmnet_data0", {"+rmnet_data0"}, {"rmnet_data0", "wlan0"}, {}},
        {"rmnet_data0,wlan0", {}, {"rmnet_data0", "wlan0"}, {}},  // order does not matter
        {"wlan0,rmnet_data0", {}, {"rmnet_data0", "wlan0"}, {}},  // removals follow the previous list
        {"wlan1", {"-wlan0", "-rmnet_data0", "+wlan1"}, {"wlan1"},
         {"-X vexo_fw_wlan0", "m_interfaceInfoMap del wlan0 success!", "m_slaInterfaceMap del wlan0 success!"}},
        {"wlan1,wlan0,wlan0", {"+wlan0", "+wlan0"}, {"wlan0", "wlan1"}, {}},  // listed twice: added twice
        {"", {"-wlan1", "-wlan0", "-wlan0"}, {}, {}},                           // empty: every previous name goes
        {"", {}, {}, {}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(std::string("list \"") + step.list + "\"");
        vord::LogCapture log;
        updateInterfaces(step.list);
        Strings ops, registry;
        auto next = step.order.begin();
        for (const std::string& line : log.lines()) {
            for (const char* op : {"remove Interfaces is ", "add Interfaces is "}) {
                const size_t at = line.find(op);
                if (at != std::string::npos) ops.push_back((op[0] == 'r' ? "-" : "+") + line.substr(at + strlen(op)));
            }
            if (next != step.order.end() && line.find(*next) != std::string::npos) ++next;
        }
        EXPECT_EQ(ops, step.ops);
        EXPECT_TRUE(next == step.order.end()) << "missing or out of order: " << *next;
        {
            std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
            for (const auto& entry : Parameters::instance()->interfaceInfoMap()) registry.push_back(entry.first);
        }
        EXPECT_EQ(registry, step.registry);
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        EXPECT_EQ(SlaStatsImpl::instance()->slaInterfaceMap().size(), step.registry.size());
    }
    EXPECT_TRUE(interfacelist.empty() && preinterfacelist.empty());
}

}  // namespace
