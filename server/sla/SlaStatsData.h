// Read-only view on one link's statistics block, and the link-rate estimator.
#pragma once

#include <stdint.h>

#include <memory>

class Parameters;

namespace sla {
struct StatsBlock;
}

class SlaStatsData {
  public:
    // `mmapAddr` is the mapped 20480-byte block. `params` is the store the
    // estimator reads its tuning from; null means Parameters::instance().
    //
    // `blockFd` (owned, closed by the destructor) is the block's open file when
    // that file can change size under the mapping (any regular file but the
    // module's procfs file): the block is then copied from the file each time
    // instead of read through the mapping, where a shrunken file would fault.
    // -1: the block is read in place.
    SlaStatsData(void* mmapAddr, bool isWlan, Parameters* params = nullptr, int blockFd = -1);
    ~SlaStatsData();
    SlaStatsData(const SlaStatsData&) = delete;
    SlaStatsData& operator=(const SlaStatsData&) = delete;

    // The link rate in kbit/s (1 kbit = 1024 bits) over the newest intervals of
    // the block, or 0 when there is no usable estimate. `packCount` (may be null)
    // receives the number of intervals used. `ifname` (may be null) names the
    // link in the log line of a block that is skipped.
    uint32_t linkRateEstimate(unsigned* packCount, char* ifname);

    void* mmapAddr;
    bool isWlan;  // selects "WLAN" or "WWAN" in log lines

  private:
    // The block to read this period: the mapping, or a private copy taken from
    // the file. Null (and logged once) when the file no longer covers a block.
    const sla::StatsBlock* currentBlock(const char* ifname);

    Parameters* m_params;
    int m_blockFd;
    std::unique_ptr<sla::StatsBlock> m_copy;
    bool m_shortLogged = false;
};
