// Fixture for tests that drive the real daemon in a sandbox root.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "TempRoot.h"

namespace vord {
namespace test {

class DaemonTest : public ::testing::Test {
  protected:
    // A short loop period keeps the shutdown through the property quick.
    static constexpr const char* kFastConf = "mini_est_interval=100\n";

    // Writes `conf` (none when empty) and starts the daemon; use with
    // ASSERT_NO_FATAL_FAILURE.
    void startDaemon(const std::string& conf = kFastConf) {
        if (!conf.empty()) root.writeConf(conf);
        daemon.start();
        ASSERT_TRUE(daemon.waitUntilServing()) << daemon.log();
    }

    // The log lines that contain `needle`, in order.
    std::vector<std::string> linesWith(const std::string& needle) const {
        std::vector<std::string> out;
        for (const std::string& line : daemon.logLines()) {
            if (line.find(needle) != std::string::npos) out.push_back(line);
        }
        return out;
    }

    TempRoot root;
    DaemonProcess daemon{root};
    ControlClient client{root};
};

}  // namespace test
}  // namespace vord
