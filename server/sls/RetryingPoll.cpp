// retrying_poll: one descriptor, an absolute CLOCK_REALTIME deadline, restarted
// after signals with the time that is left.

#define LOG_TAG "MUX-Vord-Tcping"

#include "sls/RetryingPoll.h"

#include <log/log.h>

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr long kNsPerSecond = 1000000000L;

timespec remainingUntil(const timespec& deadline) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    timespec left{deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_sec -= 1;
        left.tv_nsec += kNsPerSecond;
    }
    if (left.tv_sec < 0) left = timespec{0, 0};
    return left;
}

}  // namespace

int retrying_poll(int fd, short events, const timespec* deadline) {
    for (;;) {
        timespec left = remainingUntil(*deadline);
        pollfd pfd{fd, events, 0};
        int n = ppoll(&pfd, 1, &left, nullptr);
        if (n == 0) {
            ALOGE(" %s : %d retrying_poll timeout", "retrying_poll", fd);
            errno = ETIMEDOUT;
            return 0;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            ALOGE(" %s : %d retrying_poll failed", "retrying_poll", fd);
            return n;
        }
        if (pfd.revents & (POLLIN | POLLOUT | POLLERR)) {
            int error = 0;
            socklen_t len = sizeof(error);
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0) error = errno;
            if (error != 0) {
                errno = error;
                ALOGE(" %s : %d retrying_poll getsockopt failed", "retrying_poll", fd);
                return -1;
            }
        }
        return n;
    }
}
