// Records on the real control socket: framing, limits and dispatch.
#include <string>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

using Record = ControlClient;  // for Record::record(...)

class ControlDispatchTest : public DaemonTest {};

TEST_F(ControlDispatchTest, RecordsInOneWriteAreAllDispatchedInOrder) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(client.deliver(Record::record(4, "10.0.0.1") + Record::record(0, "zero") +
                               Record::record(12, "42") + Record::record(15, "fifteen") +
                               Record::record(3, "0")));
    ASSERT_TRUE(daemon.waitForLog("recv msg:", std::chrono::seconds(10), 5)) << daemon.log();

    std::vector<std::string> received = linesWith("recv msg:");
    const char* expected[] = {"id=4,", "id=0,", "id=12,", "id=15,", "id=3,"};
    ASSERT_EQ(received.size(), 5u);
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_NE(received[i].find(expected[i]), std::string::npos) << received[i];
    }
    EXPECT_TRUE(daemon.waitForLog("unknow mesage!!!", std::chrono::seconds(10), 2));
    EXPECT_EQ(daemon.countLog("unknow mesage!!!"), 2u);  // ids 0 and 15 only
    EXPECT_EQ(daemon.countLog("populateWifiGateway = 10.0.0.1"), 1u);
    EXPECT_EQ(daemon.countLog("updateSlsInterfacesRtt (id 12) is not available yet"), 1u);
}

TEST_F(ControlDispatchTest, LengthLimitAndRecordBoundaries) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const std::string longest(1023, 'k');
    const std::string unterminated(1024, 'z');  // fills `message`, no NUL
    // The dropped record must not hold back the ones queued behind it.
    ASSERT_TRUE(client.deliver(Record::record(12, "drop-me", 1024) + Record::record(12, longest) +
                               Record::record(12, unterminated, 5)));
    // A short record (id, length and four bytes of text) is still one record.
    const int32_t head[2] = {12, 4};
    std::string shortRecord(reinterpret_cast<const char*>(head), sizeof(head));
    ASSERT_TRUE(client.deliver(shortRecord + "tail"));
    ASSERT_TRUE(daemon.waitForLog("msg.message=[tail]")) << daemon.log();

    EXPECT_EQ(daemon.countLog("drop-me"), 0u);
    EXPECT_EQ(daemon.countLog("msg.length=1023, msg.message=[" + longest + "]"), 1u);
    // The text is cut at the last byte of `message`, never read beyond it.
    EXPECT_EQ(daemon.countLog("msg.length=5, msg.message=[" + std::string(1023, 'z') + "]"), 1u);
    EXPECT_EQ(daemon.countLog("msg.length=4, msg.message=[tail]"), 1u);
}

TEST_F(ControlDispatchTest, GatewayIsAppliedOnlyWhenItChanges) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const std::string a = "192.168.1.1", b = "192.168.43.1,10.0.0.1";
    // Does not fit the gateway memory (63 characters) and is refused.
    const std::string tooLong = "192.168.100.101,192.168.100.102,192.168.100.103,192.168.100.104,10.0.0.9";
    ASSERT_TRUE(client.deliver(Record::record(4, a) + Record::record(4, a) + Record::record(4, b) +
                               Record::record(4, a) + Record::record(4, tooLong) +
                               Record::record(4, a) + Record::record(12, "done")));
    ASSERT_TRUE(daemon.waitForLog("updateSlsInterfacesRtt (id 12)")) << daemon.log();

    EXPECT_EQ(daemon.countLog("populateWifiGateway = 192.168.1.1"), 2u);  // a, b, a; repeats skipped
    EXPECT_EQ(daemon.countLog("populateWifiGateway = 192.168.43.1"), 1u);
    EXPECT_EQ(daemon.countLog("populateWifiGateway = 10.0.0.9"), 0u);
    EXPECT_EQ(daemon.countLog("refused a gateway list of " + std::to_string(tooLong.size())), 1u);
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
}  // namespace test
}  // namespace vord
