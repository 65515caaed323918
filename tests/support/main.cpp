// Every test program runs in a private sandbox root, so that the process-wide
// store never reads a real configuration file or property.
#include <android-base/logging.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>

#include "TempRoot.h"

namespace {

// libbase's LOG() lines become platform log lines ("file:line] message"), as the
// host stand-in writes them, so that the log capture sees them with the real
// libbase too (which would write them to stderr).
void logToPlatformLog(android::base::LogId, android::base::LogSeverity severity, const char* tag,
                      const char* file, unsigned int line, const char* message) {
    // VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT, FATAL
    const int prio[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO, ANDROID_LOG_WARN,
                        ANDROID_LOG_ERROR, ANDROID_LOG_FATAL, ANDROID_LOG_FATAL};
    const char* base = strrchr(file, '/');
    const std::string text = std::string(base ? base + 1 : file) + ":" + std::to_string(line) + "] " + message;
    __android_log_write(prio[severity], tag ? tag : "vord", text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    android::base::SetLogger(logToPlatformLog);
    vord::test::TempRoot root;
    setenv("VORD_ROOT", root.path().c_str(), 1);
    return RUN_ALL_TESTS();
}
