// Commands 2, 5 and 7: repeats, "NULL", and the payload memory that counts even
// when the command goes no further.

#include "RulesFixture.h"

#include "control/ControlState.h"
#include "control/WhitelistCommands.h"

TEST_F(RulesTest, WhitelistCommandsApplyOnlyNewPayloads) {
    addRecord("rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    addRecord("wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    setControlParameters(params);
    commands();
    setUidWhitelist("10123");
    EXPECT_EQ(
        commands(),
        (Strings{
            IPT "-F vexo_MUX_wapper",
            IPT "-A vexo_MUX_wapper -m owner --uid-owner 10123 -j vexo_MUX",
            IPT "-F vexo_fw_rmnet_data0_wrapper ",
            IPT
            "-A vexo_fw_rmnet_data0_wrapper -m owner --uid-owner 10123 -j vexo_fw_rmnet_data0"}));
    setUidWhitelist("10123");
    EXPECT_TRUE(commands().empty());
    setUidWhitelist("NULL");
    EXPECT_EQ(commands(),
              (Strings{IPT "-F vexo_MUX_wapper", IPT "-F vexo_fw_rmnet_data0_wrapper "}));
    setUidWhitelist("NULL");
    EXPECT_TRUE(commands().empty());

    // Without a store only the payload is remembered: the same payload later is a repeat.
    setControlParameters(nullptr);
    setDWUidWhitelist("10300");
    setControlParameters(params);
    setDWUidWhitelist("10300");
    EXPECT_TRUE(commands().empty());
    setDWUidWhitelist("10301");
    EXPECT_EQ(commands().back(),
              IPT "-A vexo_fw_wlan1_wrapper -m owner --uid-owner 10301 -j vexo_fw_wlan1");
    setControlParameters(nullptr);
}
