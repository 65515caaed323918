// Host stand-in for libbase's LOG(severity) stream.
//
// A message is written as one platform log line when the statement ends. The tag
// is LOG_TAG when the including file defines it, else "vord". The source file and
// line of the statement lead the message text.
#pragma once

#include <functional>
#include <sstream>
#include <string>

namespace android {
namespace base {

enum LogSeverity {
    VERBOSE,
    DEBUG,
    INFO,
    WARNING,
    ERROR,
    FATAL_WITHOUT_ABORT,
    FATAL,
};

enum LogId {
    DEFAULT,
    MAIN,
    SYSTEM,
};

// Where every message goes: (id, severity, tag, file, line, message). Without a
// logger set, a message becomes one platform log line, "file:line] message".
using LogFunction = std::function<void(LogId, LogSeverity, const char*, const char*, unsigned int,
                                       const char*)>;
void SetLogger(LogFunction&& logger);

class LogMessage {
  public:
    LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    std::ostream& stream() { return buffer_; }

  private:
    const char* file_;
    unsigned int line_;
    LogSeverity severity_;
    const char* tag_;
    std::ostringstream buffer_;
};

}  // namespace base
}  // namespace android

#ifdef LOG_TAG
#define _LOG_TAG_INTERNAL LOG_TAG
#else
#define _LOG_TAG_INTERNAL nullptr
#endif

#define LOG(severity)                                                                    \
    ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity,           \
                                _LOG_TAG_INTERNAL)                                       \
        .stream()
