// A private sandbox root (VORD_ROOT) for the fuzz targets: the daemon's
// directories, no configuration file and no rule tools, so nothing a target
// drives can read the host's files or run a command.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

namespace vordfuzz {

inline int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

// The root's path, kept in plain storage so that it outlives static destructors.
inline char* rootPath() {
    static char path[64];
    return path;
}

inline void removeRoot() { nftw(rootPath(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

inline const std::string& sandboxRoot() {
    static const std::string root = [] {
        // In memory where possible: the targets rewrite a file on every input,
        // and truncating a file on disk can cost milliseconds.
        char shm[] = "/dev/shm/vord-fuzz-XXXXXX";
        char tmp[] = "/tmp/vord-fuzz-XXXXXX";
        char* tmpl = mkdtemp(shm);
        if (tmpl == nullptr) tmpl = mkdtemp(tmp);
        if (tmpl == nullptr) abort();
        std::string r = tmpl;
        for (const char* dir : {"/vendor", "/vendor/etc", "/vendor/etc/sla", "/proc", "/proc/sla",
                                "/properties", "/dev", "/dev/socket", "/system", "/system/bin"}) {
            mkdir((r + dir).c_str(), 0755);
        }
        setenv("VORD_ROOT", r.c_str(), 1);
        snprintf(rootPath(), 64, "%s", tmpl);
        atexit(removeRoot);
        return r;
    }();
    return root;
}

// Replaces the file at `rel` (a fixed path such as "/proc/sla/config") in the root.
inline void writeFile(const std::string& rel, const void* data, size_t size) {
    FILE* f = fopen((sandboxRoot() + rel).c_str(), "wb");
    if (f == nullptr) abort();
    if (size > 0 && fwrite(data, 1, size, f) != size) abort();
    fclose(f);
}

}  // namespace vordfuzz
