// The command runner: direct start without a shell, output logging, refusals.

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "rules/RuleCommand.h"
#include "rules/execnetd.h"

namespace {

using vord::test::TempRoot;
using vord::test::readWholeFile;

std::string recordPath() { return vord::resolvePath("/record/argv"); }

// "/system/bin/argv-tool": records its arguments as "[a][b]..." lines and prints
// `output`.
void installArgvTool(const std::string& output = "") {
    std::string script = "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >> '" +
                         recordPath() + "'\necho >> '" + recordPath() + "'\n" + output;
    TempRoot::writeAt(vord::resolvePath("/system/bin/argv-tool"), script, 0755);
    unlink(recordPath().c_str());
}

}  // namespace

TEST(Execnetd, SplitsAtBlankRunsAndNeverUsesAShell) {
    installArgvTool();
    std::string marker = vord::resolvePath("/record/injected");
    std::string cmd = "/system/bin/argv-tool  -w   a;touch " + marker + " $(id) 'q' `x` | y";
    vord::LogCapture log;
    EXPECT_EQ(execnetd(cmd.c_str()), 0);
    EXPECT_EQ(readWholeFile(recordPath()),
              "[-w][a;touch][" + marker + "][$(id)]['q'][`x`][|][y]\n");
    EXPECT_NE(access(marker.c_str(), F_OK), 0);
    // The log keeps the command as written.
    EXPECT_TRUE(log.contains("I/MUX-Vord-iptablesManager: SEND SLA NDC COMMAND - PASS  " + cmd));
    EXPECT_EQ(log.count("EXECNETD FAIL"), 0u);
}

TEST(Execnetd, LogsEachOutputLineAsTwoErrorLinesAndStillSucceeds) {
    // Two lines on stdout and stderr together, and one of 1500 characters, which is
    // logged in pieces of at most 1023.
    installArgvTool("echo 'chain exists'\necho 'no such rule' >&2\nprintf '%01500d\\n' 0\n");
    vord::LogCapture log;
    EXPECT_EQ(execnetd("/system/bin/argv-tool -N x"), 0);
    auto fails = log.grep(" SLA EXECNETD FAIL - ");
    ASSERT_EQ(fails.size(), 4u);
    EXPECT_EQ(fails[0], "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL - chain exists");
    EXPECT_EQ(fails[1], "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL - no such rule");
    EXPECT_EQ(fails[2], "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL - " + std::string(1023, '0'));
    EXPECT_EQ(fails[3], "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL - " + std::string(477, '0'));
    EXPECT_EQ(log.count("E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL cmd - /system/bin/argv-tool -N x"),
              4u);
    // Each output line directly follows its pair partner.
    auto all = log.lines();
    for (size_t i = 0; i + 1 < all.size(); ++i) {
        if (all[i].find("FAIL - ") != std::string::npos) {
            EXPECT_NE(all[i + 1].find("FAIL cmd - "), std::string::npos);
        }
    }
}

TEST(Execnetd, MissingToolFailsWithMinusOne) {
    vord::LogCapture log;
    EXPECT_EQ(execnetd("/system/bin/no-such-tool -w -t mangle -F vexo_SLA"), -1);
    EXPECT_TRUE(log.contains(
        "E/MUX-Vord-iptablesManager: SEND SLA NDC COMMAND - FAIL  /system/bin/no-such-tool -w -t "
        "mangle -F vexo_SLA "));
    EXPECT_FALSE(log.contains("PASS"));
}

TEST(Execnetd, OverLongCommandsAreRefusedNotCut) {
    installArgvTool();
    vord::LogCapture log;
    // 1019 characters and " 2>&1" would not fit in a 1024-byte line: refused.
    std::string longCmd = "/system/bin/argv-tool " + std::string(1019 - 22, 'a');
    EXPECT_EQ(execnetd(longCmd.c_str()), -1);
    // A composed command must fit in 512 bytes.
    EXPECT_EQ(rules::run("/system/bin/argv-tool %s", std::string(500, 'b').c_str()), -1);
    EXPECT_NE(access(recordPath().c_str(), F_OK), 0) << "a refused command was run";
    EXPECT_EQ(log.count("PASS"), 0u);
    EXPECT_EQ(log.count("refused"), 1u);
    EXPECT_EQ(log.count("too long"), 1u);

    // Just short enough is run in full.
    std::string fits = "/system/bin/argv-tool " + std::string(1018 - 22, 'c');
    EXPECT_EQ(execnetd(fits.c_str()), 0);
    EXPECT_EQ(readWholeFile(recordPath()), "[" + std::string(1018 - 22, 'c') + "]\n");
}
