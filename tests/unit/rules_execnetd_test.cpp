// The command runner: direct start without a shell, output logging, refusals.

#include <gtest/gtest.h>

#include <unistd.h>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include <string>

#include "TempRoot.h"
#include "rules/RuleCommand.h"
#include "rules/execnetd.h"

namespace {

std::string argvFile() { return vord::resolvePath("/record/argv"); }

// "/system/bin/argv-tool" records its arguments as "[a][b]..." and then runs `tail`.
void installArgvTool(const std::string& tail = "") {
    vord::test::TempRoot::writeAt(
        vord::resolvePath("/system/bin/argv-tool"),
        "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done > '" + argvFile() + "'\n" + tail,
        0755);
    unlink(argvFile().c_str());
}

}  // namespace

TEST(Execnetd, SplitsAtBlankRunsWithoutAShellAndLogsOutputAsErrorPairs) {
    // Output on both streams, and a line of 1500 characters, logged in pieces of
    // at most 1023.
    installArgvTool("echo 'chain exists'\necho 'no rule' >&2\nprintf '%01500d\\n' 0\n");
    std::string marker = vord::resolvePath("/record/injected");
    std::string cmd = "/system/bin/argv-tool  -w   a;touch " + marker + " $(id) 'q' |";
    vord::LogCapture log;
    EXPECT_EQ(execnetd(cmd.c_str()), 0);
    EXPECT_EQ(vord::test::readWholeFile(argvFile()),
              "[-w][a;touch][" + marker + "][$(id)]['q'][|]");
    EXPECT_NE(access(marker.c_str(), F_OK), 0);

    const std::string tag = "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL ";
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "I/MUX-Vord-iptablesManager: SEND SLA NDC COMMAND - PASS  " + cmd,
                  tag + "- chain exists", tag + "cmd - " + cmd, tag + "- no rule",
                  tag + "cmd - " + cmd, tag + "- " + std::string(1023, '0'), tag + "cmd - " + cmd,
                  tag + "- " + std::string(477, '0'), tag + "cmd - " + cmd}));
}

TEST(Execnetd, MissingToolAndOverLongCommandsFailWithoutRunning) {
    vord::LogCapture log;
    EXPECT_EQ(execnetd("/system/bin/no-such-tool -w"), -1);
    EXPECT_TRUE(log.contains(
        "E/MUX-Vord-iptablesManager: SEND SLA NDC COMMAND - FAIL  /system/bin/no-such-tool -w "));

    installArgvTool();
    // 1019 characters and " 2>&1" do not fit a 1024-byte line; a composed command
    // must fit 512 bytes. Neither is cut and run.
    EXPECT_EQ(execnetd(("/system/bin/argv-tool " + std::string(997, 'a')).c_str()), -1);
    EXPECT_EQ(rules::run("/system/bin/argv-tool %s", std::string(500, 'b').c_str()), -1);
    EXPECT_NE(access(argvFile().c_str(), F_OK), 0);
    EXPECT_FALSE(log.contains("PASS"));

    EXPECT_EQ(execnetd(("/system/bin/argv-tool " + std::string(996, 'c')).c_str()), 0);
    EXPECT_EQ(vord::test::readWholeFile(argvFile()), "[" + std::string(996, 'c') + "]");
}
