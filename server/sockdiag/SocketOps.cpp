#include "sockdiag/SocketOps.h"

#include <unistd.h>

namespace android {
namespace net {

namespace {

class RealSocketOps : public SocketOps {
  public:
    int socket(int domain, int type, int protocol) override {
        return ::socket(domain, type, protocol);
    }
    int connect(int fd, const sockaddr* addr, socklen_t len) override {
        return ::connect(fd, addr, len);
    }
    ssize_t writev(int fd, const iovec* iov, int iovcnt) override {
        return ::writev(fd, iov, iovcnt);
    }
    ssize_t write(int fd, const void* buf, size_t len) override { return ::write(fd, buf, len); }
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from,
                     socklen_t* fromlen) override {
        return ::recvfrom(fd, buf, len, flags, from, fromlen);
    }
    ssize_t read(int fd, void* buf, size_t len) override { return ::read(fd, buf, len); }
    int close(int fd) override { return ::close(fd); }
};

}  // namespace

SocketOps& realSocketOps() {
    static RealSocketOps ops;
    return ops;
}

}  // namespace net
}  // namespace android
