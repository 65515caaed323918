// The RTT model of one link: smoothing, leaky miss counter and network levels.

#define LOG_TAG "MUX-Vord-SlaPing"

#include "sls/InterfaceRtt.h"

#include <log/log.h>

#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "config/Parameters.h"

namespace {

// Filled into both histories while a link counts as failed, and used as the
// last sample of an empty history.
constexpr uint32_t kFailedRttMs = 500;
constexpr size_t kLongHistory = 10;
constexpr size_t kShortHistory = 3;

struct Band {
    int32_t upTo;  // inclusive upper bound of the band, in ms
    int32_t level;
};
// Wi-Fi bands start 30 ms later than the others and rank one level higher.
constexpr Band kWifiBands[] = {{119, 11}, {219, 9}, {319, 7}, {419, 5}, {INT32_MAX, 3}};
constexpr Band kOtherBands[] = {{89, 10}, {189, 8}, {289, 6}, {389, 4}, {INT32_MAX, 2}};

int32_t bandLevel(const Band (&bands)[5], int32_t s) {
    for (const Band& band : bands) {
        if (s <= band.upTo) return band.level;
    }
    return 0;
}

// 32-bit sum and signed truncating division; 0 for an empty history.
int32_t average(const std::vector<uint32_t>& history) {
    if (history.empty()) return 0;
    uint32_t sum = 0;
    for (uint32_t v : history) sum += v;
    return static_cast<int32_t>(sum) / static_cast<int32_t>(history.size());
}

void dropOldest(std::vector<uint32_t>& history, size_t keep) {
    if (history.size() > keep) history.erase(history.begin());
}

}  // namespace

const char* linkFailCauseText(LinkFailCause cause) {
    switch (cause) {
        case LinkFailCause::Carrier: return "lost carrier";
        case LinkFailCause::AdminDown: return "went administratively down";
        case LinkFailCause::Removed: return "was removed";
        case LinkFailCause::AddressLost: return "lost its last IPv4 address";
        case LinkFailCause::Stall: return "stalled (a probe got no answer)";
        case LinkFailCause::None: break;
    }
    return "failed";
}

const char* linkFailCauseKey(LinkFailCause cause) {
    switch (cause) {
        case LinkFailCause::Carrier: return "carrier-lost";
        case LinkFailCause::AdminDown: return "admin-down";
        case LinkFailCause::Removed: return "link-removed";
        case LinkFailCause::AddressLost: return "address-lost";
        case LinkFailCause::Stall: return "stall";
        case LinkFailCause::None: break;
    }
    return "link-failed";
}

InterfaceRtt* InterfaceRtt::create(const char* ifname, int minPingTimes, bool running) {
    size_t len = ifname == nullptr ? 0 : strlen(ifname);
    if (len == 0 || len > kMaxNameLength) {
        ALOGE("%s interface name \"%s\" is empty or longer than %zu characters, not selected",
              "InterfaceRtt", ifname == nullptr ? "(null)" : ifname, kMaxNameLength);
        return nullptr;
    }
    InterfaceRtt* record = new InterfaceRtt();
    memcpy(record->ifname, ifname, len + 1);
    record->minPingTimes = minPingTimes;
    record->running = running;
    return record;
}

void InterfaceRtt::setSpeed(int rawRtt) {
    Parameters* params = Parameters::instance();
    const int limit = params->getMinPingTimes();
    if (minPingTimes == 1) {
        speed = rawRtt;
        ALOGI("SLA_PING Ping RTT interface (%s) num ping rtt = (%d) ", ifname, missCount);
        return;
    }
    const int alpha = params->getAlphaPercent();
    int raw;
    if (rawRtt == -1) {
        if (missCount < limit) {
            missCount += 1;
            ALOGI("%s: SLA_PING Ping Miss for RTT interface (%s) num ping miss = (%d) ", "setSpeed",
                  ifname, missCount);
        }
        raw = m_shortpreviousSpeed.empty() ? kFailedRttMs : m_shortpreviousSpeed.back();
        speed = m_longpreviousSpeed.empty() ? kFailedRttMs : m_longpreviousSpeed.back();
    } else {
        raw = rawRtt;
        if (missCount > 0) missCount -= 1;
    }
    if (missCount >= limit) {
        speed = -1;
        m_longpreviousSpeed.push_back(kFailedRttMs);
        m_shortpreviousSpeed.push_back(kFailedRttMs);
        dropOldest(m_longpreviousSpeed, kLongHistory);
        dropOldest(m_shortpreviousSpeed, kShortHistory);
        ALOGI("%s: SLA_PING Ping FAIL for RTT interface (%s) (calc = %d)(old speed = %d) (new prev = %d) (alpha_percent = %d)",
              "setSpeed", ifname, speed, raw, static_cast<int>(m_longpreviousSpeed.back()), alpha);
    } else {
        caclaverageInterfaceSpeed(raw);
    }
    caclInterfaceLevel();
}

void InterfaceRtt::caclaverageInterfaceSpeed(int raw) {
    const int alpha = Parameters::instance()->getAlphaPercent();
    const int32_t longAvg = average(m_longpreviousSpeed);
    const int32_t shortAvg = average(m_shortpreviousSpeed);
    const uint32_t l = static_cast<uint32_t>(longAvg != 0 ? longAvg : raw);
    const uint32_t s = static_cast<uint32_t>(shortAvg != 0 ? shortAvg : raw);
    const uint32_t a = static_cast<uint32_t>(alpha);
    speed = static_cast<int32_t>((s * (100u - a)) / 100u + (l * a) / 100u);
    m_longpreviousSpeed.push_back(static_cast<uint32_t>(raw));
    m_shortpreviousSpeed.push_back(static_cast<uint32_t>(raw));
    dropOldest(m_longpreviousSpeed, kLongHistory);
    dropOldest(m_shortpreviousSpeed, kShortHistory);
    ALOGI("%s: SLA_PING Ping Pass for RTT interface (%s) (short_average = %d) (long_average = %d) (cacl = %d) (raw = %d) (longpreviousSpeed size= %d) (m_shortpreviousSpeed size= %d) (alpha_percent = %d)",
          "caclaverageInterfaceSpeed", ifname, static_cast<int>(s), static_cast<int>(l), speed, raw,
          static_cast<int>(m_longpreviousSpeed.size()), static_cast<int>(m_shortpreviousSpeed.size()),
          alpha);
}

void InterfaceRtt::caclInterfaceLevel() {
    const int32_t s = speed;
    if (s == -1) {
        level = 1;
        levelSpeed = -1;
    } else if (s > 0) {
        const bool wifi = strncmp(ifname, "wlan", 4) == 0;
        const int32_t candidate = wifi ? bandLevel(kWifiBands, s) : bandLevel(kOtherBands, s);
        const bool oneBand = abs(candidate - level) == 2;
        if (!oneBand || abs(s - levelSpeed) >= 20) {
            level = candidate;
            levelSpeed = s;
        }
    }
    ALOGI("%s: SLA_PING cacl Interface Level interface (%s) (network level = %d)",
          "caclInterfaceLevel", ifname, level);
}

void InterfaceRtt::forceFail(LinkFailCause cause) {
    const int limit = Parameters::instance()->getMinPingTimes();
    epoch += 1;
    failCause = cause;
    if (minPingTimes == 1) {  // a raw record: -1 is its failed state
        speed = -1;
        return;
    }
    if (missCount < limit) missCount = limit;
    speed = -1;
    m_longpreviousSpeed.push_back(kFailedRttMs);
    m_shortpreviousSpeed.push_back(kFailedRttMs);
    dropOldest(m_longpreviousSpeed, kLongHistory);
    dropOldest(m_shortpreviousSpeed, kShortHistory);
    caclInterfaceLevel();
}

bool InterfaceRtt::isSlave() {
    // Called under g_slsMapMutex, which ranks after g_interfaceMapMutex: the
    // registry is only tried, never waited for. While it is busy the flag last
    // read (taken when the record was created) answers.
    std::unique_lock<std::mutex> lock(g_interfaceMapMutex, std::try_to_lock);
    if (!lock.owns_lock()) return m_slaveHint;
    InterfaceInfo_t* info = Parameters::instance()->findInterface(ifname);
    if (info == nullptr) {
        ALOGE("%s ifaceInfo is NULL", "isSlave");
        m_slaveHint = false;
        return false;
    }
    m_slaveHint = info->slave;
    return m_slaveHint;
}
