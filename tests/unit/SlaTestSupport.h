// Statistics blocks and registry entries for the link-aggregation tests.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsImpl.h"

namespace slatest {

constexpr uint8_t S = sla::kKindStart, K = sla::kKindSkip, I = sla::kKindInterval;

// A record `ageMs` before now.
struct Rec { uint64_t ageMs; uint32_t bytes; uint8_t kind; uint8_t flag = 0; };

// Writes `recs` oldest first from the ring's last slot on, so every walk over
// them crosses the ring end; the newest record is the last one.
inline void writeRecords(sla::StatsBlock* b, const std::vector<Rec>& recs) {
    memset(b, 0, sizeof(*b));
    b->magic = sla::kStatsMagic;
    const uint64_t now = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::system_clock::now().time_since_epoch()).count());
    uint32_t slot = sla::kStatsRecordCount - 1;
    for (const Rec& r : recs) {
        b->records[slot] = sla::StatsRecord{now - r.ageMs, r.bytes, 0, r.kind, r.flag};
        slot = (slot + 1) % sla::kStatsRecordCount;
    }
    b->index = slot;
}

// Five 100 ms intervals of 1000 kbit/s (12800 bytes each), the newest 10 ms old.
inline std::vector<Rec> steadyRecords() {
    return {{510, 0, S}, {410, 12800, I}, {310, 12800, I}, {210, 12800, I}, {110, 12800, I}, {10, 12800, I}};
}

inline void registerInterface(const char* name, bool metered) {
    auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(info->name, sizeof(info->name), "%s", name);
    snprintf(info->routeTable, sizeof(info->routeTable), "%s", name);
    snprintf(info->fwmark, sizeof(info->fwmark), "0x200000");
    info->metered = metered;
    Parameters::instance()->addNewInterfacetoMap(info);
}

// A fresh SlaStatsImpl with a plain file as the module's config channel; the
// registry, the block files and the channel are removed afterwards.
class SlaFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        close(open(config.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        impl = SlaStatsImpl::instance();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        const auto registry = Parameters::instance()->interfaceInfoMap();  // no other thread runs now
        for (const auto& e : registry) Parameters::instance()->delOldInterfacetoMap(e.first.c_str());
        for (const auto& f : files) {
            munmap(f.second, sla::kStatsBlockSize);
            unlink(f.first.c_str());
        }
        unlink(config.c_str());
    }
    // A block file "/proc/sla/<name>_mmap", mapped writable.
    sla::StatsBlock* blockFile(const std::string& name) {
        std::string path = vord::resolvePath("/proc/sla/" + name + "_mmap");
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        EXPECT_EQ(0, ftruncate(fd, sla::kStatsBlockSize));
        void* a = mmap(nullptr, sla::kStatsBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        EXPECT_NE(MAP_FAILED, a);
        files.emplace_back(path, a);
        return static_cast<sla::StatsBlock*>(a);
    }
    sla::StatsBlock* link(const char* name, bool metered) {
        registerInterface(name, metered);
        return blockFile(name);
    }
    // The caller holds g_slaMapMutex.
    linkStatsWrapper_t* wrapper(const char* name) { return impl->slaInterfaceMap().at(name); }

    std::string config = vord::resolvePath("/proc/sla/config");
    SlaStatsImpl* impl = nullptr;
    std::vector<std::pair<std::string, void*>> files;
};

}  // namespace slatest
