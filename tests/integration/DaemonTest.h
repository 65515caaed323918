// Fixture for tests that drive the real daemon in a sandbox root.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <cmath>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "DaemonProcess.h"
#include "TempRoot.h"
#include "status/StatusText.h"

namespace vord {
namespace test {

class DaemonTest : public ::testing::Test {
  protected:
    // Writes `conf` (none when empty), starts the daemon and waits until it
    // serves; use with ASSERT_NO_FATAL_FAILURE. A rule tool the test did not
    // install is a recording stand-in. A short loop period (the default conf)
    // keeps the shutdown through the property quick.
    void startDaemon(const std::string& conf = "mini_est_interval=100\n") {
        installMissingRuleTools(root);
        if (!conf.empty()) root.writeConf(conf);
        daemon.start();
        ASSERT_TRUE(daemon.waitUntilServing()) << daemon.log();
    }
    // Waits until the status snapshot parses and satisfies `pred`; `last` keeps
    // the newest one read.
    template <typename Pred>
    bool waitSnapshot(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        return waitFor([&] { return status::parse(root.readFile(kSnapshot), &last, nullptr) && pred(last); },
                       timeout);
    }
    // True when the newest "vexo_SLA" cascade in the commands `tool` recorded
    // sends, in order, to the targets of `want` with their probabilities (within 0.01).
    bool newestCascadeIs(const std::vector<std::pair<std::string, double>>& want,
                         const std::string& tool = "iptables-wrapper-1.0") const {
        std::string cmds;
        std::istringstream all(root.recordedCommands());
        for (std::string l; std::getline(all, l);) {
            if (l.compare(0, tool.size() + 13, "/system/bin/" + tool + " ") == 0) cmds += l + "\n";
        }
        size_t at = cmds.rfind("-F vexo_SLA");
        for (const auto& rule : want) {
            char target[64];
            double p;
            if (at == std::string::npos || (at = cmds.find("--probability ", at + 1)) == std::string::npos ||
                sscanf(cmds.c_str() + at, "--probability %lf -j %63s", &p, target) != 2 ||
                rule.first != target || std::abs(rule.second - p) > 0.01) {
                return false;
            }
        }
        return cmds.find("--probability ", at + 1) == std::string::npos;
    }

    static constexpr const char* kSnapshot = "/data/vendor/vord/status";
    TempRoot root;
    DaemonProcess daemon{root};
    ControlClient client{root};
    status::Snapshot last;
};

}  // namespace test
}  // namespace vord
