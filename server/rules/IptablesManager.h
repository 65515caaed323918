// The rule manager: owns every iptables chain and policy routing rule the daemon
// installs.
//
// Tree, all in the mangle table except the last:
//   OUTPUT -> vexo_MUX_wapper   gateway RETURNs, then a jump to vexo_MUX per listed UID
//   vexo_MUX                    -> vexo_SLS; CONNMARK restore for ESTABLISHED,RELATED;
//                               -> vexo_SLA
//   vexo_SLS                    at most one jump, to vexo_sls_uid_IFACE of the chosen link
//   vexo_SLA                    one random-probability rule per link
//   vexo_sls_uid_IFACE          per gaming UID -> vexo_sls_IFACE
//   vexo_sls_IFACE              UDP except DNS and all TCP -> vexo_fw_IFACE; else ACCEPT
//   vexo_fw_IFACE_wrapper       per listed UID -> vexo_fw_IFACE (metered/slave/cellular)
//   vexo_fw_IFACE               set mark, save it in the connection, ACCEPT
//   nat POSTROUTING -> vexo_nat_POSTROUTING_MUX   one MASQUERADE per interface
// plus one "fwmark MARK/0x0CE00000 table TABLE prio 14999" rule per interface.
//
// Results follow one convention: the sum of the execnetd results of a group of
// commands (0 when every command could be started); -1 on failure.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "registry/InterfaceInfo.h"
#include "sla/LinkStats.h"

// Held around each group of rule commands that belongs together. Taken last:
// after g_interfaceMapMutex and after g_slaMapMutex / g_slsMapMutex.
extern std::mutex g_iptablesMutex;

class IptablesManager {
  public:
    // The singleton; the first call builds the base chains.
    static IptablesManager* instance();
    // Destroys the singleton, which removes every chain and rule of the tree.
    static void clean_MUX_iptables();

    int cleanup_SLS_iptables_UID_chains();
    int cleanup_MUX_iptables_FWMARK_chains();

    // Per-interface mark chains, wrapper chains, routing and NAT rules.
    int create_MUX_FWMARK_chain_for_iface(InterfaceInfo_t* info);
    int remove_MUX_FWMARK_chain_for_iface(InterfaceInfo_t* info);
    // Called by the interface commands: after the registry holds the record when
    // adding, before it deletes it when removing. Always 0.
    int updateInterfaceIptables(const char* name, bool add);

    // Link selection chains and the switch.
    int create_SLS_iptables_UID_for_interface(InterfaceInfo_t* info);
    int remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* info);
    int setup_SLS_iptables_UID_chains();
    int set_SLS_interface(const char* ifname);

    // Rewrites the aggregation cascade in vexo_SLA. Takes g_interfaceMapMutex and
    // then g_iptablesMutex itself, so the caller must hold neither, nor the
    // aggregation map's mutex: it hands over wrappers that no other thread changes
    // during the call (private copies).
    int set_SLA_ratio_iptables(std::map<std::string, linkStatsWrapper_t*>& slaMap);

    // Whitelist chains.
    int setup_mux_whitelist();
    int setup_sla_uid_whitelist();
    int setup_double_wlan_uid_whitelist();
    int setup_double_data_uid_whitelist();

  private:
    // Runs `perInterface` on every registered record, in name order, under
    // g_interfaceMapMutex; logs `failedFmt` (function, interface) for each
    // failure and `summaryFmt` (function) once if any failed. 0 or -1.
    int forEachInterface(int (IptablesManager::*perInterface)(InterfaceInfo_t*), const char* func,
                         const char* failedFmt, const char* summaryFmt);

    IptablesManager();
    ~IptablesManager();
    IptablesManager(const IptablesManager&) = delete;
    IptablesManager& operator=(const IptablesManager&) = delete;

    int fillWrapperChains(const char* func, bool (*serves)(const InterfaceInfo_t&),
                          const std::vector<std::string>& list);
};
