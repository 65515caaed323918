// Read-only view on one link's statistics block, and the link-rate estimator.
#pragma once

#include <stdint.h>

class Parameters;

class SlaStatsData {
  public:
    // `mmapAddr` is the mapped 20480-byte block. `params` is the store the
    // estimator reads its tuning from; null means Parameters::instance().
    SlaStatsData(void* mmapAddr, bool isWlan, Parameters* params = nullptr);

    // The link rate in kbit/s (1 kbit = 1024 bits) over the newest intervals of
    // the block, or 0 when there is no usable estimate. `packCount` (may be null)
    // receives the number of intervals used. `ifname` is unused.
    uint32_t linkRateEstimate(unsigned* packCount, char* ifname);

    void* mmapAddr;
    bool isWlan;  // selects "WLAN" or "WWAN" in log lines

  private:
    Parameters* m_params;
};
