// Sends stderr (the daemon's log) to /dev/null for as long as it lives, so that
// writing log lines stays in what a benchmark measures without flooding the
// terminal.
#pragma once

#include <fcntl.h>
#include <unistd.h>

class QuietStderr {
  public:
    QuietStderr() : saved_(dup(STDERR_FILENO)) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~QuietStderr() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

  private:
    int saved_;
};
