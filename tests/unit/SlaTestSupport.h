// Statistics blocks and registry entries for the link-aggregation tests.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsImpl.h"

namespace slatest {

inline uint64_t nowMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

inline void setRecord(sla::StatsBlock* b, uint32_t slot, uint64_t ts, uint32_t bytes, uint8_t kind,
                      uint8_t flag = 0) {
    b->records[slot] = sla::StatsRecord{ts, bytes, 0, kind, flag};
}

// Writes a start record and then one closing record per interval, newest last,
// the newest `ageMs` before now. `ms` and `bytes` list the intervals oldest first.
inline void writeIntervals(sla::StatsBlock* b, std::initializer_list<uint32_t> ms, uint32_t bytes,
                           uint64_t ageMs = 10) {
    memset(b, 0, sizeof(*b));
    b->magic = sla::kStatsMagic;
    uint64_t total = 0;
    for (uint32_t d : ms) total += d;
    uint64_t ts = nowMs() - ageMs - total;
    uint32_t slot = 0;
    setRecord(b, slot++, ts, 0, sla::kKindStart);
    for (uint32_t d : ms) {
        ts += d;
        setRecord(b, slot++, ts, bytes, sla::kKindInterval);
    }
    b->index = slot;
}

// A block file "/proc/sla/<name>_mmap" in the sandbox root, mapped writable.
class BlockFile {
  public:
    explicit BlockFile(const std::string& name)
        : path_(vord::resolvePath("/proc/sla/" + name + "_mmap")) {
        int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0 && ftruncate(fd, sla::kStatsBlockSize) == 0) {
            void* a = mmap(nullptr, sla::kStatsBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (a != MAP_FAILED) block = static_cast<sla::StatsBlock*>(a);
        }
        if (fd >= 0) close(fd);
    }
    ~BlockFile() {
        if (block != nullptr) munmap(block, sla::kStatsBlockSize);
        unlink(path_.c_str());
    }
    sla::StatsBlock* block = nullptr;

  private:
    std::string path_;
};

inline void registerInterface(const char* name, bool metered) {
    auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(info->name, sizeof(info->name), "%s", name);
    snprintf(info->routeTable, sizeof(info->routeTable), "%s", name);
    snprintf(info->fwmark, sizeof(info->fwmark), "0x200000");
    info->metered = metered;
    Parameters::instance()->addNewInterfacetoMap(info);
}

inline void unregisterAll() {
    Parameters* p = Parameters::instance();
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        for (const auto& e : p->interfaceInfoMap()) names.push_back(e.first);
    }
    for (const auto& n : names) p->delOldInterfacetoMap(n.c_str());
}

// A fresh SlaStatsImpl with a plain file as the module's config channel; the
// registry and the channel are emptied afterwards.
class SlaFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        close(open(config.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        impl = SlaStatsImpl::instance();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        unregisterAll();
        unlink(config.c_str());
    }
    std::string config = vord::resolvePath("/proc/sla/config");
    SlaStatsImpl* impl = nullptr;
};

}  // namespace slatest
