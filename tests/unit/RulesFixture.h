// Rule manager tests: do-nothing stand-ins for both tools in the sandbox root, the
// process-wide store with records of our choosing, and the commands as issued.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include <vord/LogCapture.h>

#include "UnitRegistry.h"
#include "rules/IptablesManager.h"

using Strings = std::vector<std::string>;
using unittest::addRecord;

#define IPT "/system/bin/iptables-wrapper-1.0 -w -t mangle "

class RulesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unittest::stubRuleTools();
        manager = IptablesManager::instance();
        log = std::make_unique<vord::LogCapture>();
    }

    void TearDown() override {
        log.reset();
        unittest::clearRegistry();
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
