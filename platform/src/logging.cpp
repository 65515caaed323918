#include <android-base/logging.h>

#include <android/log.h>

#include <stdlib.h>
#include <string.h>

namespace android {
namespace base {

namespace {

int toPriority(LogSeverity severity) {
    switch (severity) {
        case VERBOSE: return ANDROID_LOG_VERBOSE;
        case DEBUG: return ANDROID_LOG_DEBUG;
        case INFO: return ANDROID_LOG_INFO;
        case WARNING: return ANDROID_LOG_WARN;
        case ERROR: return ANDROID_LOG_ERROR;
        case FATAL_WITHOUT_ABORT:
        case FATAL: return ANDROID_LOG_FATAL;
    }
    return ANDROID_LOG_INFO;
}

LogFunction& logger() {
    static LogFunction f;
    return f;
}

}  // namespace

void SetLogger(LogFunction&& f) { logger() = std::move(f); }

LogMessage::LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag)
    : file_(file), line_(line), severity_(severity), tag_(tag) {}

LogMessage::~LogMessage() {
    if (logger()) {
        logger()(DEFAULT, severity_, tag_, file_, line_, buffer_.str().c_str());
        if (severity_ == FATAL) abort();
        return;
    }
    const char* base = strrchr(file_, '/');
    base = base ? base + 1 : file_;
    std::string text = std::string(base) + ":" + std::to_string(line_) + "] " + buffer_.str();
    __android_log_write(toPriority(severity_), tag_ ? tag_ : "vord", text.c_str());
    if (severity_ == FATAL) abort();
}

}  // namespace base
}  // namespace android
