// The monitors' adapters to link selection, against the real engine.
#include "SlsTestSupport.h"

#include "monitors/MonitorAdapters.h"

namespace {

using slstest::SlsTest;

class PenaltySinkTest : public SlsTest {};

TEST_F(PenaltySinkTest, WritesOnlyExistingRecordsAndNothingWithoutTheEngine) {
    InterfaceRtt* wlan7 = addLink("wlan7", 0);
    auto sink = vord::makeSelectionPenaltySink();
    EXPECT_EQ(sink->write({{"wlan7", 30}, {"wlan9", 60}}), 1);
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_EQ(wlan7->rssiPenaltyMs, 30);
        EXPECT_EQ(engine->slsInterfaceMap().count("wlan9"), 0u);  // no record made up
    }
    SmartLinkSelection::finalize();
    EXPECT_EQ(sink->write({{"wlan7", 60}}), -1);
    EXPECT_FALSE(SmartLinkSelection::isInstance());  // not created by the write
}

}  // namespace
