// The configuration file syntax, defaults, OperId table and the enabling property.

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"

namespace {

void writeConf(const std::string& text) {
    vord::test::TempRoot::writeAt(vord::resolvePath("/vendor/etc/sla/vord.conf"), text);
}

void removeConf() { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }

void setEnabledProperty(const char* value) {
    std::string path = vord::resolvePath("/properties/vendor.sla.enabled");
    if (value == nullptr) {
        unlink(path.c_str());
    } else {
        vord::test::TempRoot::writeAt(path, value);
    }
}

struct SyntaxCase {
    const char* line;
    std::function<std::string(const Parameters&)> read;
    const char* expected;
};

std::string nHyst(const Parameters& p) { return std::to_string(p.getNHyst()); }

}  // namespace

TEST(ConfigSyntax, CommentCutStripAndConversionQuirks) {
    const SyntaxCase cases[] = {
        {"n_hyst=3 # three", nHyst, "3"},
        // The character before "#" goes with the comment.
        {"n_hyst=3#three", nHyst, "0"},
        {"n_hyst=34#x", nHyst, "3"},
        {"#n_hyst=3", nHyst, "1"},
        {"   #", nHyst, "1"},
        {"n_hyst=12abc", nHyst, "12"},
        {"n_hyst=abc", nHyst, "0"},
        {"n_hyst= -3", nHyst, "-3"},
        {"\t n_hyst \t=\t 4 \t", nHyst, "4"},
        {"n_hyst 5", nHyst, "1"},
        {"N_HYST=5", nHyst, "1"},
        {"n_hyst=5\r", nHyst, "5"},
        {"rtt_server = 192.0.2.7", [](const Parameters& p) { return p.getRttServer(); }, "192.0.2.7"},
        // A carriage return stays part of a string value.
        {"ports=8080\r", [](const Parameters& p) { return p.getPorts(); }, "8080\r"},
        {"a=b=c", [](const Parameters& p) { return p.getProtocols(); }, "http,https"},
        {"protocols=x=y", [](const Parameters& p) { return p.getProtocols(); }, "x=y"},
        {"mini_est_interval=0", [](const Parameters& p) { return std::to_string(p.get(mini_est_interval)); }, "0"},
    };
    for (const SyntaxCase& c : cases) {
        writeConf(std::string(c.line) + "\n");
        Parameters p;
        EXPECT_EQ(c.read(p), c.expected) << "line: " << c.line;
    }
}

TEST(ConfigSyntax, LastValueWinsAndLastLineNeedsNoNewline) {
    writeConf("n_hyst=2\nmin_ping_times=9\nn_hyst=7");
    Parameters p;
    EXPECT_EQ(p.getNHyst(), 7);
    EXPECT_EQ(p.getMinPingTimes(), 9);
}

TEST(ConfigDefaults, MissingFileKeepsDefaultsAndLogsOnce) {
    removeConf();
    vord::LogCapture log;
    Parameters p;
    EXPECT_EQ(log.count("E/MUX-Vord-SlaParameters: read vord conf file failed!"), 1u);
    EXPECT_EQ(p.get(mini_est_interval), 1000);
    EXPECT_EQ(p.get(wifi_threshold), 1600);
    EXPECT_EQ(p.get(wan_threshold), 500);
    EXPECT_EQ(p.get(SockStaleTime), 0);
    EXPECT_EQ(p.get(11), 0);
    EXPECT_EQ(p.get(28), 0);
    EXPECT_EQ(p.get(29), -1);
    EXPECT_EQ(p.getRttServer(), VORD_DEFAULT_RTT_SERVER);
    EXPECT_EQ(p.getRttServerPort(), 443);
    EXPECT_EQ(p.getMaxEstimateBytes(), 102400u);
    EXPECT_EQ(p.getInterfaceMode(), "1");
    char buf[512];
    EXPECT_STREQ(p.getStatsProtocols(buf), "protocols=http,https");
    EXPECT_STREQ(p.getStatsPorts(buf), "ports=80,443");
}

TEST(ConfigProperty, OnlyTwoStopsTheDaemon) {
    removeConf();
    Parameters p;
    const std::pair<const char*, int> cases[] = {{nullptr, 0}, {"2", 2}, {"2abc", 2}, {"x", 0}, {"1", 1}};
    for (const auto& c : cases) {
        setEnabledProperty(c.first);
        EXPECT_EQ(p.getSLAVendorProp(), c.second) << (c.first ? c.first : "(unset)");
        EXPECT_EQ(p.get(SLAEnabled), c.second);
    }
    setEnabledProperty(nullptr);
}
