// retrying_poll: one descriptor, an absolute CLOCK_REALTIME deadline, restarted
// after signals with the time that is left, and an optional abort descriptor.

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

timespec deadlineAfterMs(long ms) {
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += (ms % 1000) * 1000000L;
    deadline.tv_sec += deadline.tv_nsec / kNsPerSecond;
    deadline.tv_nsec %= kNsPerSecond;
    return deadline;
}

int pollUntil(int fd, short events, const timespec* deadline, int abortFd, short* revents) {
    for (;;) {
        timespec left = remainingUntil(*deadline);
        pollfd pfd[2] = {{fd, events, 0}, {abortFd, POLLIN, 0}};
        int n = ppoll(pfd, abortFd >= 0 ? 2 : 1, &left, nullptr);
        if (n < 0 && errno == EINTR) continue;
        if (n > 0 && pfd[1].revents != 0) {
            errno = ECANCELED;
            return -1;
        }
        if (revents != nullptr) *revents = pfd[0].revents;
        return n;
    }
}

int retrying_poll(int fd, short events, const timespec* deadline, int abortFd) {
    short revents = 0;
    int n = pollUntil(fd, events, deadline, abortFd, &revents);
    if (n == 0) {
        ALOGE(" %s : %d retrying_poll timeout", "retrying_poll", fd);
        errno = ETIMEDOUT;
        return 0;
    }
    if (n < 0) {
        if (errno != ECANCELED) ALOGE(" %s : %d retrying_poll failed", "retrying_poll", fd);
        return n;
    }
    if (revents & (POLLIN | POLLOUT | POLLERR)) {
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
