// Host platform log: one line per message on stderr, "<P>/<tag>: <message>".
//
// The line is formatted on the stack and written with a single write(2), so
// lines of different threads never interleave and a signal handler may log.

#include <android/log.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "LogSink.h"

namespace {

char priorityLetter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        default: return 'I';
    }
}

void writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    if (tag == nullptr) tag = "vord";
    if (text == nullptr) text = "";
    char line[4352];
    int n = snprintf(line, sizeof(line), "%c/%s: %s", priorityLetter(prio), tag, text);
    if (n < 0) return -1;
    size_t len = static_cast<size_t>(n) < sizeof(line) - 1 ? static_cast<size_t>(n)
                                                          : sizeof(line) - 2;
    // One trailing newline of the message belongs to the line break itself.
    if (len > 0 && line[len - 1] == '\n') --len;
    line[len] = '\0';
    if (vord::detail::deliverToSink(line)) return 1;
    line[len] = '\n';
    writeAll(STDERR_FILENO, line, len + 1);
    return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    char msg[4096];
    vsnprintf(msg, sizeof(msg), fmt, ap);
    return __android_log_write(prio, tag, msg);
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return r;
}
