// Moves the calling thread into a fresh network namespace with loopback up, and
// back on destruction. Threads and processes it starts meanwhile live in there
// too; nothing they send leaves this machine.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vord {
namespace test {

class PrivateNetns {
  public:
    PrivateNetns() {
        if (saved_ < 0 || unshare(CLONE_NEWNET) != 0) return;
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
        ok_ = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
        close(fd);
    }
    ~PrivateNetns() {
        setns(saved_, CLONE_NEWNET);
        close(saved_);
    }
    PrivateNetns(const PrivateNetns&) = delete;
    bool ok() const { return ok_; }

  private:
    int saved_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    bool ok_ = false;
};

}  // namespace test
}  // namespace vord
