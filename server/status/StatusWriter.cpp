// The status snapshot file.

#define LOG_TAG "MUX-Vord-Status"

#include "status/StatusWriter.h"

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vord/RootPath.h>

namespace vord {
namespace status {

namespace {

#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

std::string dirOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool writeAll(int fd, const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

// Puts the new file `tmp` in place of `path`. Swapping the two names and then
// removing the old snapshot from under the temporary name costs a tenth of a
// rename over the old file on ext4, which writes the new file's data out at once
// when a rename replaces a file. Without a snapshot to swap with, or where
// swapping is not supported, a plain rename.
int replaceFile(const std::string& tmp, const std::string& path) {
    if (syscall(SYS_renameat2, AT_FDCWD, tmp.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0) {
        unlink(tmp.c_str());
        return 0;
    }
    return rename(tmp.c_str(), path.c_str()) == 0 ? 0 : errno;
}

}  // namespace

StatusWriter::StatusWriter(const std::string& devicePath)
    : m_devicePath(devicePath),
      m_path(resolvePath(devicePath)),
      m_tmpPath(dirOf(m_path) + "/.status.tmp") {}

// Creates each missing directory of the device path, under the root.
bool StatusWriter::makeDirectory() {
    const std::string dir = dirOf(m_devicePath);
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at != dir.size() && dir[at] != '/') continue;
        const std::string d = resolvePath(dir.substr(0, at));
        if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

bool StatusWriter::write(const Snapshot& s) {
    const std::string text = format(s);
    // A new file each time (a crash may have left one): truncating an old file
    // would also write its data out on ext4.
    unlink(m_tmpPath.c_str());
    int fd = open(m_tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT && makeDirectory()) {
        fd = open(m_tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    int err = 0;
    if (fd < 0) {
        err = errno;
    } else {
        // Readable by any user whatever the daemon's umask: vordctl need not be root.
        fchmod(fd, 0644);
        if (!writeAll(fd, text)) err = errno != 0 ? errno : EIO;
        if (close(fd) != 0 && err == 0) err = errno;
        if (err == 0) err = replaceFile(m_tmpPath, m_path);
        if (err != 0) unlink(m_tmpPath.c_str());
    }
    if (err != 0) {
        if (!m_failing) ALOGE("status snapshot %s not written: %s", m_devicePath.c_str(), strerror(err));
        m_failing = true;
        return false;
    }
    if (m_failing) ALOGI("status snapshot %s written again", m_devicePath.c_str());
    m_failing = false;
    return true;
}

bool StatusWriter::update(Snapshot& s, int64_t nowMonoMs, int64_t nowWallMs) {
    if (m_written && sameContent(s, m_last) &&
        nowMonoMs - m_lastWriteMonoMs < heartbeatMs(s.periodMs)) {
        return false;
    }
    s.updatedMonoMs = nowMonoMs;
    s.updatedWallMs = nowWallMs;
    if (!write(s)) return false;  // tried again next period
    m_last = s;
    m_written = true;
    m_lastWriteMonoMs = nowMonoMs;
    return true;
}

}  // namespace status
}  // namespace vord
