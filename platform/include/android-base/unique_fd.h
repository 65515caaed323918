// Host stand-in for libbase's unique_fd: an owned file descriptor.
#pragma once

#include <errno.h>
#include <unistd.h>

namespace android {
namespace base {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }

    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    void reset(int new_fd = -1) {
        if (fd_ != -1) {
            int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = new_fd;
    }

    int get() const { return fd_; }
    operator int() const { return get(); }  // NOLINT: same implicit conversion as libbase
    bool ok() const { return fd_ != -1; }

    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace base
}  // namespace android
