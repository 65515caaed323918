// The system calls SockDiag makes on its netlink sockets, behind a small
// interface so that tests can stand a scripted kernel in for the real one.
#pragma once

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace android {
namespace net {

class SocketOps {
  public:
    virtual ~SocketOps() = default;
    virtual int socket(int domain, int type, int protocol) = 0;
    virtual int connect(int fd, const sockaddr* addr, socklen_t len) = 0;
    virtual ssize_t writev(int fd, const iovec* iov, int iovcnt) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t len) = 0;
    virtual ssize_t recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from,
                             socklen_t* fromlen) = 0;
    virtual ssize_t read(int fd, void* buf, size_t len) = 0;
    virtual int close(int fd) = 0;
};

// The process's real system calls.
SocketOps& realSocketOps();

}  // namespace net
}  // namespace android
