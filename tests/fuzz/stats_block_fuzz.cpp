// Arbitrary statistics blocks through the link-rate estimator and the estimate
// cache. The input is a 24-byte header and then the block's bytes (the rest of
// the 20480 bytes stay zero). The header chooses the tuning values, the
// index, whether the magic is set, whether timestamps are rebased to the last
// 64 seconds (so that walks go deep), and whether the block is read in place
// or copied out of a file cut to an arbitrary length.
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "config/Parameters.h"
#include "sla/LinkStats.h"
#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsData.h"
#include "sla/SlaStatsImpl.h"

namespace {

constexpr size_t kHeader = 24;

uint32_t word(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

uint64_t nowMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Parameters* params = new Parameters();
    static linkHistory_t history;
    if (size < kHeader) return 0;
    vord::LogCapture quiet;

    const uint32_t flags = word(data);
    params->setValue("mini_stale_interval", std::to_string(static_cast<int32_t>(word(data + 4))).c_str());
    params->setValue("ideal_est_window", std::to_string(static_cast<int32_t>(word(data + 8))).c_str());
    params->setValue("mini_rate_window", std::to_string(static_cast<int32_t>(word(data + 12))).c_str());
    params->setValue("best_est_cache_size", std::to_string(static_cast<int32_t>(word(data + 16)) % 5000).c_str());

    // Exactly one block on the heap, so any read past it is reported.
    std::unique_ptr<sla::StatsBlock> block(new sla::StatsBlock());
    const size_t body = size - kHeader < sizeof(sla::StatsBlock) ? size - kHeader : sizeof(sla::StatsBlock);
    memcpy(block.get(), data + kHeader, body);
    if (flags & 1) block->magic = sla::kStatsMagic;
    if (flags & 2) block->index = word(data + 20);
    if (flags & 4) {
        const uint64_t now = nowMs();
        for (sla::StatsRecord& r : block->records) {
            if (r.timestamp_ms != 0) r.timestamp_ms = now - (r.timestamp_ms & 0xffff);
        }
    }

    unsigned packs = 0;
    uint32_t rate;
    if (flags & 8) {
        // Copied out of a file that may be shorter than a block.
        const std::string rel = "/proc/sla/fuzz_mmap";
        const size_t length = (flags >> 8) % (sizeof(sla::StatsBlock) + 1);
        vordfuzz::writeFile(rel, block.get(), length);
        int fd = open((vordfuzz::sandboxRoot() + rel).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) abort();
        SlaStatsData view(block.get(), (flags & 16) != 0, params, fd);
        char name[] = "fuzz0";
        rate = view.linkRateEstimate(&packs, name);
        if (length < sizeof(sla::StatsBlock) && (rate != 0 || packs != 0)) abort();
    } else {
        SlaStatsData view(block.get(), (flags & 16) != 0, params);
        rate = view.linkRateEstimate(&packs, nullptr);
    }
    if (packs > sla::kStatsRecordCount) abort();

    const uint32_t best = SlaStatsImpl::instance()->getMaxLinkRateFromHistory(history, rate, params);
    if (params->getBestEstCacheSize() > 0 && best < rate) abort();
    if (history.rates.size() > static_cast<size_t>(Parameters::kMaxBestEstCacheSize)) abort();
    return 0;
}
