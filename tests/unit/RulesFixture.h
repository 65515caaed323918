// Shared set-up of the rule manager tests: recording stand-ins for both tools in
// the sandbox root, the process-wide store with records of our choosing, and the
// commands issued, as written, from the log.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"
#include "rules/IptablesManager.h"

using Strings = std::vector<std::string>;

class RulesTest : public ::testing::Test {
  protected:
    static std::string argvRecord() { return vord::resolvePath("/record/argv"); }

    void SetUp() override {
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            std::string script = "#!/bin/sh\nprintf '%s' " + std::string(tool) +
                                 " >> '" + argvRecord() +
                                 "'\nfor a in \"$@\"; do printf ' [%s]' \"$a\"; done >> '" +
                                 argvRecord() + "'\necho >> '" + argvRecord() + "'\n";
            vord::test::TempRoot::writeAt(vord::resolvePath(std::string("/system/bin/") + tool),
                                          script, 0755);
        }
        params = Parameters::instance();
        manager = IptablesManager::instance();
        unlink(argvRecord().c_str());
        log = std::make_unique<vord::LogCapture>();
    }

    void TearDown() override {
        log.reset();
        {
            std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
            for (auto& entry : params->interfaceInfoMap()) free(entry.second);
            params->interfaceInfoMap().clear();
        }
        for (auto setter : {&Parameters::setuidwhitelist, &Parameters::setDWUidWhitelist,
                            &Parameters::setDDUidWhitelist, &Parameters::setGamingUids}) {
            (params->*setter)("");
        }
        params->populateSlauidwhitelist();
        params->populateDWUidWhitelist();
        params->populateDDUidWhitelist();
        params->populateGamingUids();
        params->populateWifiGateway("");
        params->setGamingRunning(0);
        params->setVoipRunning(false);
        params->setDoubleWifiSelectStatus(0);
    }

    // Registers a record built from an interface parameter string.
    void addRecord(const std::string& paramString) {
        InterfaceInfo_t* record = params->parseInterfaceParams(paramString);
        ASSERT_NE(record, nullptr) << paramString;
        ASSERT_EQ(params->addNewInterfacetoMap(record), 1);
    }

    // Registers a record as is, bypassing the registry's own checks.
    void addRawRecord(const char* name, const char* table, const char* mark, bool metered,
                      bool slave) {
        auto* record = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(record->name, sizeof(record->name), "%s", name);
        snprintf(record->routeTable, sizeof(record->routeTable), "%s", table);
        snprintf(record->fwmark, sizeof(record->fwmark), "%s", mark);
        record->metered = metered;
        record->slave = slave;
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        free(params->interfaceInfoMap()[name]);
        params->interfaceInfoMap()[name] = record;
    }

    // The commands issued since the last call, as written.
    Strings commands() {
        Strings out;
        const std::string pass = "SEND SLA NDC COMMAND - PASS  ";
        for (const std::string& line : log->grep(pass)) {
            out.push_back(line.substr(line.find(pass) + pass.size()));
        }
        log->clear();
        return out;
    }

    // The argument vectors the tools received, one "tool [arg] [arg]..." per run.
    static std::string argvSeen() { return vord::test::readWholeFile(argvRecord()); }

    Parameters* params = nullptr;
    IptablesManager* manager = nullptr;
    std::unique_ptr<vord::LogCapture> log;
};

#define IPT "/system/bin/iptables-wrapper-1.0 -w -t mangle "
#define IPT_NAT "/system/bin/iptables-wrapper-1.0 -w -t nat "
#define IP_RULE "/system/bin/ip-wrapper-1.0 -4 rule "
