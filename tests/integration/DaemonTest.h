// Fixture for tests that drive the real daemon in a sandbox root.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "DaemonProcess.h"
#include "TempRoot.h"

namespace vord {
namespace test {

class DaemonTest : public ::testing::Test {
  protected:
    // Writes `conf` (none when empty), starts the daemon and waits until it
    // serves; use with ASSERT_NO_FATAL_FAILURE. A short loop period (the
    // default conf) keeps the shutdown through the property quick.
    void startDaemon(const std::string& conf = "mini_est_interval=100\n") {
        if (!conf.empty()) root.writeConf(conf);
        daemon.start();
        ASSERT_TRUE(daemon.waitUntilServing()) << daemon.log();
    }

    TempRoot root;
    DaemonProcess daemon{root};
    ControlClient client{root};
};

}  // namespace test
}  // namespace vord
