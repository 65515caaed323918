// Layout of one per-link statistics block as the kernel module writes it
// ("/proc/sla/<ifname>_mmap"). Shared by the daemon, which maps it read-only,
// and by the host statistics simulator, which writes it.
//
// The block is little-endian; the module, the daemon and the simulator all run
// on little-endian machines, so the structures below are read in place.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace sla {

constexpr uint32_t kStatsMagic = 0x686A7379;  // the module has initialised the block
constexpr size_t kStatsBlockSize = 20480;
constexpr uint32_t kStatsRecordCount = 1279;

// Record kinds the daemon distinguishes. Any kind other than kKindSkip can mark
// the start of an interval; kKindInterval closes one.
constexpr uint8_t kKindStart = 0;
constexpr uint8_t kKindSkip = 1;
constexpr uint8_t kKindInterval = 2;

struct StatsRecord {
    uint64_t timestamp_ms;  // wall-clock ms since the epoch; 0: never written
    uint32_t bytes;         // bytes of the interval this record closes
    uint16_t reserved;
    uint8_t kind;
    uint8_t flag;  // non-zero: not used for rate estimation
};

struct StatsBlock {
    uint32_t magic;
    uint32_t reserved0;
    uint32_t index;  // next slot to be written; the newest record is the one before
    uint32_t reserved1;
    StatsRecord records[kStatsRecordCount];
};

static_assert(sizeof(StatsRecord) == 16, "a statistics record is 16 bytes");
static_assert(offsetof(StatsRecord, kind) == 14 && offsetof(StatsRecord, flag) == 15,
              "kind and flag are the last two bytes of a record");
static_assert(offsetof(StatsBlock, records) == 16, "records start at offset 16");
static_assert(sizeof(StatsBlock) == kStatsBlockSize, "a statistics block is 20480 bytes");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the block is read in place");

// Slot before `slot` in the ring.
inline uint32_t prevSlot(uint32_t slot) { return slot == 0 ? kStatsRecordCount - 1 : slot - 1; }

}  // namespace sla
