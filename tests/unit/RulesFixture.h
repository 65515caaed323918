// Rule manager tests: do-nothing stand-ins for both tools in the sandbox root, the
// process-wide store with records of our choosing, and the commands as issued.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>

#include <memory>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"
#include "rules/IptablesManager.h"

using Strings = std::vector<std::string>;

#define IPT "/system/bin/iptables-wrapper-1.0 -w -t mangle "

class RulesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            vord::test::TempRoot::writeAt(vord::resolvePath("/system/bin/") + tool, "#!/bin/sh\n",
                                          0755);
        }
        manager = IptablesManager::instance();
        log = std::make_unique<vord::LogCapture>();
    }

    void TearDown() override {
        log.reset();
        {
            std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
            for (auto& entry : params->interfaceInfoMap()) free(entry.second);
            params->interfaceInfoMap().clear();
        }
        setList(&Parameters::setuidwhitelist, &Parameters::populateSlauidwhitelist, "");
        setList(&Parameters::setDWUidWhitelist, &Parameters::populateDWUidWhitelist, "");
        setList(&Parameters::setDDUidWhitelist, &Parameters::populateDDUidWhitelist, "");
        setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "");
        params->populateWifiGateway("");
        params->setGamingRunning(0);
        params->setDoubleWifiSelectStatus(0);
    }

    void setList(void (Parameters::*set)(const char*), void (Parameters::*parse)(),
                 const char* text) {
        (params->*set)(text);
        (params->*parse)();
    }

    // Registers a record built from an interface parameter string.
    void addRecord(const std::string& paramString) {
        InterfaceInfo_t* record = params->parseInterfaceParams(paramString);
        ASSERT_NE(record, nullptr) << paramString;
        ASSERT_EQ(params->addNewInterfacetoMap(record), 1);
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

    Parameters* params = Parameters::instance();
    IptablesManager* manager = nullptr;
    std::unique_ptr<vord::LogCapture> log;
};
