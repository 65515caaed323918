// Writes the status snapshot file: atomically, and only when it has news.
#pragma once

#include <stdint.h>

#include <string>

#include "status/StatusText.h"

namespace vord {
namespace status {

class StatusWriter {
  public:
    // `devicePath` is the file's device path (e.g. kSnapshotPath); it is taken
    // under VORD_ROOT, and its directory is created when missing.
    explicit StatusWriter(const std::string& devicePath);

    // Stamps `s` with the given times and writes it when its content differs from
    // the last written one, or when the last write is a heartbeat old. Returns
    // true when the file was written.
    bool update(Snapshot& s, int64_t nowMonoMs, int64_t nowWallMs);

    // Writes `s` as it is: a temporary file in the same directory, renamed over
    // the snapshot, so a reader sees the old file or the new one, never a part.
    bool write(const Snapshot& s);

    const std::string& path() const { return m_path; }

  private:
    bool makeDirectory();

    std::string m_devicePath;  // for log lines
    std::string m_path;        // resolved
    std::string m_tmpPath;
    Snapshot m_last;           // content of the last write
    bool m_written = false;
    int64_t m_lastWriteMonoMs = 0;
    bool m_failing = false;    // the last write failed (logged once per failure run)
};

}  // namespace status
}  // namespace vord
