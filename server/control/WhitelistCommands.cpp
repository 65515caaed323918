// The whitelist commands share one procedure: remember the payload, store and
// parse the list, rebuild the entry chain, then the wrapper chains of the list.

#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/WhitelistCommands.h"

#include <stdio.h>
#include <string.h>

#include "config/Parameters.h"
#include "control/ControlState.h"
#include "rules/IptablesManager.h"

namespace {

// The payload of the last command of each kind. Control thread only.
char g_slaWhitelistPayload[2048];
char g_dwWhitelistPayload[2048];
char g_ddWhitelistPayload[2048];

struct WhitelistCommand {
    char* lastPayload;
    void (Parameters::*setText)(const char*);
    void (Parameters::*parse)();
    int (IptablesManager::*applyWrappers)();
};

void handle(const WhitelistCommand& cmd, const char* text) {
    if (text == nullptr) return;
    // A repeated payload changes nothing, even if the list changed since.
    if (strcmp(cmd.lastPayload, text) == 0) return;
    // Remembered before anything else: a command that goes no further still counts.
    snprintf(cmd.lastPayload, sizeof(g_slaWhitelistPayload), "%s", text);
    IptablesManager* iptables = IptablesManager::instance();
    Parameters* params = controlParameters();
    if (iptables == nullptr || params == nullptr) return;
    (params->*cmd.setText)(strcmp(text, "NULL") == 0 ? "" : text);
    (params->*cmd.parse)();
    iptables->setup_mux_whitelist();
    (iptables->*cmd.applyWrappers)();
}

}  // namespace

void setUidWhitelist(const char* text) {
    handle({g_slaWhitelistPayload, &Parameters::setuidwhitelist,
            &Parameters::populateSlauidwhitelist, &IptablesManager::setup_sla_uid_whitelist},
           text);
}

void setDWUidWhitelist(const char* text) {
    handle({g_dwWhitelistPayload, &Parameters::setDWUidWhitelist,
            &Parameters::populateDWUidWhitelist, &IptablesManager::setup_double_wlan_uid_whitelist},
           text);
}

void setDDUidWhitelist(const char* text) {
    handle({g_ddWhitelistPayload, &Parameters::setDDUidWhitelist,
            &Parameters::populateDDUidWhitelist, &IptablesManager::setup_double_data_uid_whitelist},
           text);
}
