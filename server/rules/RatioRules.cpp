// The aggregation cascade in vexo_SLA: one rule per interface, each taking a
// random share of the new TCP connections that the rules before it left.
//
// A rule seeing the remaining share 1 - S must take ratio / (1 - S) of what it
// sees to take `ratio` of all connections. Non-metered interfaces come first (in
// name order), metered ones after them, always through their wrapper chains.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleFamily.h"

namespace {

// p := ratio / (1 - S) in double precision, kept as a float, at most 1; `fallback`
// when nothing is left (1 - S <= 0).
float conditionalProbability(float ratio, float total, float fallback) {
    float p = fallback;
    double left = 1.0 - static_cast<double>(total);
    if (left > 0) p = static_cast<float>(static_cast<double>(ratio) / left);
    return std::min(p, 1.0f);
}

// The wrapper's name, bounded by its field even if a writer left no terminator.
std::string linkName(const linkStatsWrapper_t& link) {
    return std::string(link.ifname, strnlen(link.ifname, sizeof(link.ifname)));
}

struct Rule {
    float p;
    std::string target;
};

}  // namespace

int IptablesManager::set_SLA_ratio_iptables(std::map<std::string, linkStatsWrapper_t*>& slaMap) {
    static const char* const kFunc = "set_SLA_ratio_iptables";
    Parameters* params = Parameters::instance();
    const int dualWifiStatus = params->getDoubleWifiSelectStatus();
    int result = 0;
    {
        std::lock_guard<std::mutex> mapLock(g_interfaceMapMutex);
        std::lock_guard<std::mutex> rulesLock(g_iptablesMutex);
        std::vector<Rule> cascade;
        float total = 0.0f;

        // First pass: non-metered interfaces. The total grows by the probability
        // written (after the dual Wi-Fi override), not by the ratio.
        for (auto& entry : slaMap) {
            linkStatsWrapper_t* link = entry.second;
            if (link == nullptr) continue;
            const std::string name = linkName(*link);
            const InterfaceInfo_t* info = params->findInterface(name);
            if (info == nullptr || info->metered) continue;
            char target[rules::kChainSize];
            if (!rules::checkInterfaceName(kFunc, name.c_str()) ||
                !rules::chainName(target, kFunc, "vexo_fw_%s", name.c_str())) {
                result += -1;
                continue;
            }
            float p = conditionalProbability(link->ratio, total, 1.0f);
            ALOGI("Updated Ratio: %f", static_cast<double>(p));
            if (dualWifiStatus == 2) {
                p = info->slave ? 1.0f : 0.0f;
            } else if (dualWifiStatus == 1) {
                p = info->slave ? 0.0f : 1.0f;
            }
            if ((info->slave || rules::isCellular(name.c_str())) &&
                !rules::chainName(target, kFunc, "vexo_fw_%s_wrapper", name.c_str())) {
                result += -1;
                continue;
            }
            cascade.push_back({p, target});
            total += p;
        }

        // Second pass: metered interfaces, always through their wrapper chains. The
        // total grows by the interface's ratio.
        for (auto& entry : slaMap) {
            linkStatsWrapper_t* link = entry.second;
            if (link == nullptr) continue;
            const std::string name = linkName(*link);
            const InterfaceInfo_t* info = params->findInterface(name);
            if (info == nullptr || !info->metered) continue;
            char target[rules::kChainSize];
            if (!rules::checkInterfaceName(kFunc, name.c_str()) ||
                !rules::chainName(target, kFunc, "vexo_fw_%s_wrapper", name.c_str())) {
                result += -1;
                continue;
            }
            float p = conditionalProbability(link->ratio, total, 0.0f);
            ALOGI("Updated Ratio: %f", static_cast<double>(p));
            cascade.push_back({p, target});
            total += link->ratio;
        }

        // The same cascade in both families.
        result += rules::inBothFamilies(kFunc, "", [&](rules::Family& f) {
            int sum = f.run("%s -w -t mangle -F vexo_SLA", f.iptables());
            for (const Rule& rule : cascade) {
                sum += f.run(
                    "%s -w -t mangle -A vexo_SLA -p tcp -m state --state NEW -m statistic --mode "
                    "random --probability %f -j %s",
                    f.iptables(), static_cast<double>(rule.p), rule.target.c_str());
            }
            return sum;
        });
    }
    if (result != 0) {
        ALOGE("%s Failure when setting SLA Ratios ", kFunc);
        return -1;
    }
    return 0;
}
