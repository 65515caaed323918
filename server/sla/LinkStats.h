// One link of aggregation: its statistics view, rate history and current ratio.
#pragma once

#include <stdint.h>

#include <deque>
#include <mutex>

class SlaStatsData;

// Guards SlaStatsImpl's aggregation map and the wrappers in it. Taken after
// g_interfaceMapMutex, never together with g_slsMapMutex.
extern std::mutex g_slaMapMutex;

// Recent link-rate estimates of one link; maxRate is always their maximum.
struct linkHistory_t {
    std::deque<uint32_t> rates;
    uint32_t maxRate = 0;
};

// Created value-initialised (all zero) with new and released with delete: the
// history holds a container, so the record is not a plain calloc block.
struct linkStatsWrapper_t {
    char ifname[128] = {};            // interface name, NUL-terminated
    SlaStatsData* stats = nullptr;    // null when the block could not be mapped
    linkHistory_t history;
    uint32_t linkRate = 0;            // last estimate, kbit/s
    uint32_t packCount = 0;           // intervals used by the last estimate
    float ratio = 0.0f;               // share of new connections, 0.0 to 1.0
    bool down = false;                // (copies for the rules) the link is down: no new connections
};
