// The link-rate estimator over one statistics block.

#define LOG_TAG "MUX-Vord-SlaStatsData"

#include "sla/SlaStatsData.h"

#include <log/log.h>

#include <errno.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "config/Parameters.h"
#include "sla/SlaStatsBlock.h"

namespace {

// The module writes the block while we read it: every field is loaded once into
// a local copy, so one decision never sees two different values of a field.
inline uint32_t loadWord(const uint32_t* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

inline sla::StatsRecord loadRecord(const sla::StatsBlock* b, uint32_t slot) {
    sla::StatsRecord r;
    memcpy(&r, &b->records[slot], sizeof(r));
    return r;
}

uint64_t nowMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

}  // namespace

SlaStatsData::SlaStatsData(void* addr, bool wlan, Parameters* params, int blockFd)
    : mmapAddr(addr), isWlan(wlan), m_params(params), m_blockFd(blockFd) {}

SlaStatsData::~SlaStatsData() {
    if (m_blockFd >= 0) close(m_blockFd);
}

const sla::StatsBlock* SlaStatsData::currentBlock(const char* ifname) {
    if (m_blockFd < 0) return static_cast<const sla::StatsBlock*>(mmapAddr);
    // pread cannot fault: a file cut short under the mapping only gives a short
    // read here, where reading the mapping past the file's end would raise SIGBUS.
    if (!m_copy) m_copy.reset(new sla::StatsBlock());
    char* dst = reinterpret_cast<char*>(m_copy.get());
    size_t got = 0;
    while (got < sla::kStatsBlockSize) {
        ssize_t n = pread(m_blockFd, dst + got, sla::kStatsBlockSize - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    if (got < sla::kStatsBlockSize) {
        if (!m_shortLogged) {
            ALOGE("%s: statistics block of %s holds %zu of %zu bytes; skipped until it is whole",
                  isWlan ? "WLAN" : "WWAN", ifname != nullptr ? ifname : "?", got,
                  sla::kStatsBlockSize);
            m_shortLogged = true;
        }
        return nullptr;
    }
    if (m_shortLogged) {
        ALOGI("%s: statistics block of %s is whole again", isWlan ? "WLAN" : "WWAN",
              ifname != nullptr ? ifname : "?");
        m_shortLogged = false;
    }
    return m_copy.get();
}

uint32_t SlaStatsData::linkRateEstimate(unsigned* packCount, char* ifname) {
    Parameters* params = m_params != nullptr ? m_params : Parameters::instance();
    unsigned scratch = 0;
    if (packCount == nullptr) packCount = &scratch;

    const sla::StatsBlock* block = currentBlock(ifname);
    if (block == nullptr && m_blockFd >= 0) {
        *packCount = 0;
        return 0;
    }
    if (block == nullptr || loadWord(&block->magic) != sla::kStatsMagic) {
        ALOGE("SLA stat colletct is not ready");
        return 0;
    }
    *packCount = 0;
    const uint64_t now = nowMs();

    const uint32_t index = loadWord(&block->index);
    uint32_t slot;
    if (index == 0) {
        slot = sla::kStatsRecordCount - 1;
    } else if (index - 1 >= sla::kStatsRecordCount) {
        ALOGE("%s:Index(%u) out of bound!", isWlan ? "WLAN" : "WWAN", index - 1);
        return 0;
    } else {
        slot = index - 1;
    }

    const uint64_t stale = static_cast<uint32_t>(params->get(mini_stale_interval));
    const uint32_t ideal = static_cast<uint32_t>(params->get(ideal_est_window));
    const uint64_t cap = params->getMaxEstimateBytes();

    uint32_t timeSum = 0;
    uint64_t byteSum = 0;
    // Records stepped back from the newest one. A walk never goes further than
    // one full pass, whatever the ring holds.
    uint32_t steps = 0;
    sla::StatsRecord cur = loadRecord(block, slot);
    if (cur.timestamp_ms != 0) {
        for (;;) {
            if (now + 1 > cur.timestamp_ms + stale) break;
            if (byteSum >= cap) break;
            if (cur.kind == sla::kKindInterval && cur.flag == 0) {
                // Find the record that opened this interval, passing over kind-1 records.
                uint32_t startSlot = sla::prevSlot(slot);
                sla::StatsRecord start = loadRecord(block, startSlot);
                bool exhausted = ++steps >= sla::kStatsRecordCount;
                while (!exhausted && start.timestamp_ms != 0 && start.kind == sla::kKindSkip) {
                    startSlot = sla::prevSlot(startSlot);
                    start = loadRecord(block, startSlot);
                    exhausted = ++steps >= sla::kStatsRecordCount;
                }
                if (exhausted || start.timestamp_ms == 0) break;

                const uint32_t interval = static_cast<uint32_t>(cur.timestamp_ms - start.timestamp_ms);
                const uint32_t cand = timeSum + interval;
                // Take the interval when it brings the span no further from the
                // ideal window than leaving it out.
                if (cand < ideal || cand - ideal <= ideal - timeSum) {
                    byteSum += cur.bytes;
                    timeSum = cand;
                    *packCount += 1;
                }
                if (cand >= ideal) break;
                slot = startSlot;
                cur = start;
            } else {
                slot = sla::prevSlot(slot);
                if (++steps >= sla::kStatsRecordCount) break;
                cur = loadRecord(block, slot);
                if (cur.timestamp_ms == 0) break;
            }
        }
    }

    const uint32_t minWin = static_cast<uint32_t>(params->get(mini_rate_window));
    if ((timeSum >= minWin || byteSum > cap) && timeSum != 0) {
        return static_cast<uint32_t>(((byteSum * 8000u) >> 10) / timeSum);
    }
    return 0;
}
