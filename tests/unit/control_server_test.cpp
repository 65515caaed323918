// The stop protocol of the control thread, in-process.
#include <gtest/gtest.h>

#include <thread>

#include "config/Parameters.h"
#include "control/ControlState.h"
#include "control/VordSocketServer.h"

namespace {

// No log capture while the control thread runs: the SIGUSR1 handler logs, and
// only the plain log is safe inside a handler.
TEST(ControlServer, StopEndsTheThreadWhileCreatingOrAccepting) {
    Parameters store;
    for (int i = 0; i < 20; ++i) {
        ASSERT_NE(createSocketThreads(&store), static_cast<pthread_t>(-1));
        // At once the thread may still be creating its socket; later it waits in accept.
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 4 == 3 ? 50 : 0));
        stopSocketThreads();  // returns once the thread is joined
    }
    setControlParameters(nullptr);
}

}  // namespace
