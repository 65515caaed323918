// sla_stats_sim: host stand-in for the kernel module behind "/proc/sla".
//
// Under <root>/proc/sla it reads the daemon's configuration lines from a FIFO
// ("config"), and keeps one statistics block per link ("<ifname>_mmap") filled
// with interval records at the rate given for the link. Rates come from the
// command line and can be changed while it runs (stdin lines or a rates file),
// or follow a host interface's byte counters.
//
// The record interval matters to the daemon: its estimator stops adding intervals
// once it has seen 102400 bytes, and it discards an estimate made of fewer than
// "estimate_pack_num" intervals, so a link whose records hold too many bytes reads
// as 0. Unless --interval is given, the interval is chosen from the rates (and
// shortened when a rate goes up) so that the daemon can read every one of them.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sla/SlaStatsBlock.h"

namespace {

const char kUsage[] =
    "usage: sla_stats_sim [options] [IFNAME=RATE ...]\n"
    "\n"
    "Stands in for the kernel module's statistics files under <root>/proc/sla:\n"
    "  config            FIFO; every NUL-terminated line written to it is printed.\n"
    "                    iface=NAME creates a block for NAME, enable=0/1 stops and\n"
    "                    resumes the records.\n"
    "  <ifname>_mmap     20480-byte statistics block per link, written in place:\n"
    "                    one closing record (kind 2) per interval.\n"
    "  sla_voip_state    written once with --voip.\n"
    "\n"
    "RATE is a number with a unit: bit, kbit (default) or mbit, where 1 kbit is\n"
    "1024 bits and 1 mbit 1024 kbit, the daemon's own units. RATE 'live' or\n"
    "'live:DEV' follows the tx_bytes+rx_bytes counters of the host interface IFNAME\n"
    "(or DEV) in /sys/class/net.\n"
    "\n"
    "Record interval: vord's estimator stops at 102400 bytes and needs\n"
    "estimate_pack_num intervals (default 5) within ideal_est_window (default\n"
    "500 ms), both read from <root>/vendor/etc/sla/vord.conf when present. Without\n"
    "--interval the interval is at most 100 ms and short enough for the highest\n"
    "rate (e.g. 18 ms at 8 mbit); a rate too high even for 2 ms records (above\n"
    "75000 kbit with the defaults) is refused. An --interval too long for a rate\n"
    "is refused with the interval that would work. Rates given while running are\n"
    "refused the same way (the link keeps its rate). 'live' rates are not known in\n"
    "advance: give them a short --interval if they run fast.\n"
    "\n"
    "Examples, each read by vord with its default vord.conf:\n"
    "  sla_stats_sim wlan0=1200kbit rmnet_data0=600kbit\n"
    "      wlan0 gets 1200/1600 (wifi_threshold) = 0.75 of new connections,\n"
    "      rmnet_data0 the remaining 0.25\n"
    "  sla_stats_sim wlan0=8mbit rmnet_data0=4mbit\n"
    "      records every 18 ms; Wi-Fi above wifi_threshold takes every new\n"
    "      connection (wlan0 1.0, rmnet_data0 0)\n"
    "\n"
    "options:\n"
    "  --root DIR         sandbox root, an existing directory (default: $VORD_ROOT,\n"
    "                     else /)\n"
    "  --interval MS      record period in milliseconds (default: chosen from the\n"
    "                     rates, at most 100)\n"
    "  --rates-file FILE  IFNAME=RATE lines, read again whenever the file changes\n"
    "  --live IFNAME[=DEV]  same as IFNAME=live[:DEV]\n"
    "  --voip ADDR:PORT   write the VoIP peer in the module's encoding\n"
    "  --no-config        do not create or read the config FIFO\n"
    "  --help             this text\n"
    "\n"
    "While running, stdin lines IFNAME=RATE change a link's rate; 'quit' exits.\n"
    "SIGINT and SIGTERM exit; the block files stay.\n";

volatile sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }

uint64_t wallMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

uint64_t monoMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// What the daemon's estimator needs from the records (see the top of the file).
constexpr double kMaxEstimateBytes = 102400;  // fixed in the daemon
constexpr uint32_t kDefaultIntervalMs = 100;
constexpr uint32_t kMinIntervalMs = 2;
// The records of the first estimate_pack_num - 1 intervals stay this far under the
// byte limit, so that a late tick (a longer interval) does not cross it.
constexpr double kByteMargin = 0.75;

struct EstimatorLimits {
    int packNum = 5;      // "estimate_pack_num"
    int idealMs = 500;    // "ideal_est_window"
    std::string source = "the defaults";
};

// The two keys from the daemon's configuration file, read as the daemon reads
// them: a '#' cuts the line one character early, blanks and tabs around keys and
// values go, numbers are atoi'ed, the last of repeated keys wins.
EstimatorLimits readLimits(const std::string& root) {
    EstimatorLimits limits;
    const std::string path = root + "/vendor/etc/sla/vord.conf";
    std::ifstream in(path);
    if (!in.is_open()) return limits;
    limits.source = path;
    auto trim = [](std::string t) {
        size_t hash = t.find('#');
        if (hash != std::string::npos && hash >= 1) t.erase(hash - 1);
        size_t first = t.find_first_not_of(" \t"), last = t.find_last_not_of(" \t");
        return first == std::string::npos ? std::string() : t.substr(first, last - first + 1);
    };
    for (std::string line; std::getline(in, line);) {
        line = trim(line);
        size_t eq = line.find('=');
        if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
        const std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        if (key == "estimate_pack_num") limits.packNum = atoi(value.c_str());
        if (key == "ideal_est_window") limits.idealMs = atoi(value.c_str());
    }
    return limits;
}

// The longest record interval at which the daemon reads `kbit`: estimate_pack_num
// intervals fit in ideal_est_window, and all but the last of them stay under the
// byte limit. 0 when not even kMinIntervalMs works.
uint32_t longestReadableInterval(double kbit, const EstimatorLimits& limits) {
    if (limits.packNum <= 1) return kDefaultIntervalMs;  // one interval always does
    double ms = limits.idealMs > 0 ? static_cast<double>(limits.idealMs) / limits.packNum : 0;
    const double bytesPerMs = kbit * 1024.0 / 8.0 / 1000.0;
    if (bytesPerMs > 0) {
        ms = std::min(ms, kByteMargin * kMaxEstimateBytes / (bytesPerMs * (limits.packNum - 1)));
    }
    ms = std::min(ms, static_cast<double>(kDefaultIntervalMs));
    return ms < kMinIntervalMs ? 0 : static_cast<uint32_t>(ms);
}

// The highest rate the daemon reads at kMinIntervalMs records, in kbit/s.
double highestReadableRate(const EstimatorLimits& limits) {
    if (limits.packNum <= 1) return 1e12;
    const double bytesPerMs =
        kByteMargin * kMaxEstimateBytes / (kMinIntervalMs * (limits.packNum - 1));
    return bytesPerMs * 8000.0 / 1024.0;
}

struct Link {
    double kbit = 0;   // configured rate, kbit/s (1024 bits)
    bool live = false;
    std::string device;  // host interface whose counters are followed
    uint64_t lastCounter = 0;
    bool haveCounter = false;
    sla::StatsBlock* block = nullptr;
    uint64_t lastTs = 0;
    double carry = 0;  // fraction of a byte not yet written
};

struct Rate {
    double kbit = 0;
    bool live = false;
    std::string device;
};

bool parseRate(const std::string& text, Rate& out) {
    out = Rate();
    if (text == "live") {
        out.live = true;
        return true;
    }
    if (text.compare(0, 5, "live:") == 0 && text.size() > 5) {
        out.live = true;
        out.device = text.substr(5);
        return true;
    }
    char* end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (end == text.c_str() || value < 0) return false;
    std::string unit(end);
    if (unit.empty() || strcasecmp(unit.c_str(), "kbit") == 0) {
        out.kbit = value;
    } else if (strcasecmp(unit.c_str(), "mbit") == 0) {
        out.kbit = value * 1024;
    } else if (strcasecmp(unit.c_str(), "bit") == 0) {
        out.kbit = value / 1024;
    } else {
        return false;
    }
    return true;
}

// "IFNAME=RATE" into name and rate.
bool parseAssignment(const std::string& line, std::string& name, Rate& rate) {
    size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0 || eq > 15) return false;
    name = line.substr(0, eq);
    if (name.find('/') != std::string::npos) return false;
    return parseRate(line.substr(eq + 1), rate);
}

bool readCounter(const std::string& device, uint64_t& total) {
    total = 0;
    for (const char* which : {"tx_bytes", "rx_bytes"}) {
        std::ifstream in("/sys/class/net/" + device + "/statistics/" + which);
        uint64_t v = 0;
        if (!(in >> v)) return false;
        total += v;
    }
    return true;
}

class Simulator {
  public:
    // `intervalMs` 0: chosen from the rates.
    Simulator(std::string root, uint32_t intervalMs)
        : m_dir(root + "/proc/sla"),
          m_intervalMs(intervalMs != 0 ? intervalMs : kDefaultIntervalMs),
          m_autoInterval(intervalMs == 0),
          m_limits(readLimits(root)) {}

    uint32_t intervalMs() const { return m_intervalMs; }
    void startRunning() { m_running = true; }

    // Why the daemon could not read `kbit` on link `name` at the record interval
    // (empty when it can); `longest` gets the longest interval that reads it (0:
    // none does).
    std::string unreadable(const std::string& name, double kbit, uint32_t& longest) const {
        longest = longestReadableInterval(kbit, m_limits);
        char text[512];
        if (longest == 0) {
            snprintf(text, sizeof(text),
                     "%s=%.0fkbit is more than vord can read: even with %u ms records its "
                     "estimator, which stops at %.0f bytes, would see fewer than "
                     "estimate_pack_num=%d intervals (%s); the highest readable rate is %.0f kbit",
                     name.c_str(), kbit, kMinIntervalMs, kMaxEstimateBytes, m_limits.packNum,
                     m_limits.source.c_str(), highestReadableRate(m_limits));
        } else if (!m_autoInterval && longest < m_intervalMs) {
            snprintf(text, sizeof(text),
                     "%s=%.0fkbit at --interval %u would read as 0 in vord: its estimator stops "
                     "at %.0f bytes or ideal_est_window=%d ms before it has estimate_pack_num=%d "
                     "intervals (%s); use --interval %u or shorter, or leave --interval out",
                     name.c_str(), kbit, m_intervalMs, kMaxEstimateBytes, m_limits.idealMs,
                     m_limits.packNum, m_limits.source.c_str(), longest);
        } else {
            return "";
        }
        return text;
    }

    // Checks that the daemon can read every configured rate at the record
    // interval, choosing the interval when it is not fixed (and saying so when
    // `announce`). A rate it cannot read is reported on stderr; false then.
    bool fitInterval(bool announce) {
        uint32_t fitting = kDefaultIntervalMs;
        bool ok = true;
        for (const auto& entry : m_links) {
            const Link& link = entry.second;
            if (link.live) continue;
            uint32_t longest = 0;
            const std::string why = unreadable(entry.first, link.kbit, longest);
            if (!why.empty()) {
                fprintf(stderr, "sla_stats_sim: %s\n", why.c_str());
                ok = false;
            }
            if (longest != 0) fitting = std::min(fitting, longest);
        }
        if (m_autoInterval && fitting != m_intervalMs) {
            m_intervalMs = fitting;
            if (announce) printf("record interval %u ms\n", m_intervalMs);
        }
        return ok;
    }

    bool prepareDir() {
        std::string cur;
        std::stringstream ss(m_dir);
        std::string part;
        while (std::getline(ss, part, '/')) {
            if (part.empty()) continue;
            cur += "/" + part;
            mkdir(cur.c_str(), 0755);
        }
        struct stat st;
        if (stat(m_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            fprintf(stderr, "sla_stats_sim: cannot create %s: %s\n", m_dir.c_str(), strerror(errno));
            return false;
        }
        return true;
    }

    bool openConfigFifo() {
        std::string path = m_dir + "/config";
        struct stat st;
        if (lstat(path.c_str(), &st) == 0) {
            if (!S_ISFIFO(st.st_mode)) {
                fprintf(stderr, "sla_stats_sim: %s exists and is not a FIFO\n", path.c_str());
                return false;
            }
        } else if (mkfifo(path.c_str(), 0666) != 0) {
            fprintf(stderr, "sla_stats_sim: mkfifo %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        // Read-write: we hold a writer ourselves, so the FIFO never reads as
        // end-of-file between two of the daemon's lines.
        m_configFd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (m_configFd < 0) {
            fprintf(stderr, "sla_stats_sim: open %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        printf("config channel %s\n", path.c_str());
        return true;
    }

    int configFd() const { return m_configFd; }

    // Sets (or adds) a link's rate; a new link gets its block at once.
    bool setRate(const std::string& name, const Rate& rate) {
        Link& link = m_links[name];
        link.kbit = rate.kbit;
        link.live = rate.live;
        link.device = rate.device.empty() ? name : rate.device;
        link.haveCounter = false;
        link.carry = 0;
        if (link.block == nullptr && !mapBlock(name, link)) {
            m_links.erase(name);
            return false;
        }
        if (link.live) {
            printf("%s: following counters of %s\n", name.c_str(), link.device.c_str());
        } else {
            printf("%s: %.0f kbit/s\n", name.c_str(), link.kbit);
        }
        return true;
    }

    void handleConfigData() {
        char buf[4096];
        for (;;) {
            ssize_t n = read(m_configFd, buf, sizeof(buf));
            if (n <= 0) break;
            m_pending.append(buf, static_cast<size_t>(n));
        }
        size_t nul;
        while ((nul = m_pending.find('\0')) != std::string::npos) {
            std::string line = m_pending.substr(0, nul);
            m_pending.erase(0, nul + 1);
            handleConfigLine(line);
        }
    }

    void handleControlLine(const std::string& line) {
        std::string name;
        Rate rate;
        if (line.empty()) return;
        if (!parseAssignment(line, name, rate)) {
            fprintf(stderr, "sla_stats_sim: ignored \"%s\" (want IFNAME=RATE)\n", line.c_str());
            return;
        }
        // Before the start, main() checks all rates at once; later a rate the
        // daemon cannot read is refused the same way, and the link keeps its rate.
        uint32_t longest = 0;
        const std::string why = m_running && !rate.live ? unreadable(name, rate.kbit, longest) : "";
        if (!why.empty()) {
            fprintf(stderr, "sla_stats_sim: refused %s\n", why.c_str());
            return;
        }
        if (setRate(name, rate) && m_running) fitInterval(true);
    }

    // Re-reads the rates file when it changed since the last look.
    void pollRatesFile(const std::string& path) {
        struct stat st;
        if (path.empty() || stat(path.c_str(), &st) != 0) return;
        std::string sig = std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
                          std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
        if (sig == m_ratesFileSig) return;
        m_ratesFileSig = sig;
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) handleControlLine(line);
    }

    // One record per link, closing the interval since the link's last record.
    void tick() {
        if (!m_enabled) return;
        const uint64_t now = wallMs();
        for (auto& entry : m_links) {
            Link& link = entry.second;
            uint64_t elapsed = now > link.lastTs ? now - link.lastTs : 0;
            if (elapsed == 0) continue;
            uint32_t bytes = 0;
            if (link.live) {
                uint64_t total = 0;
                if (readCounter(link.device, total)) {
                    if (link.haveCounter && total >= link.lastCounter) {
                        bytes = static_cast<uint32_t>(total - link.lastCounter);
                    }
                    link.lastCounter = total;
                    link.haveCounter = true;
                }
            } else {
                double exact = link.kbit * 1024.0 / 8.0 * static_cast<double>(elapsed) / 1000.0 + link.carry;
                double whole = exact < 4294967295.0 ? static_cast<double>(static_cast<uint64_t>(exact)) : 4294967295.0;
                link.carry = exact - whole;
                bytes = static_cast<uint32_t>(whole);
            }
            append(link.block, now, bytes, sla::kKindInterval);
            link.lastTs = now;
        }
    }

    bool writeVoip(const std::string& peer) {
        size_t colon = peer.rfind(':');
        struct in_addr addr;
        if (colon == std::string::npos || inet_pton(AF_INET, peer.substr(0, colon).c_str(), &addr) != 1) {
            fprintf(stderr, "sla_stats_sim: --voip wants ADDR:PORT, got \"%s\"\n", peer.c_str());
            return false;
        }
        unsigned long port = strtoul(peer.c_str() + colon + 1, nullptr, 10);
        if (port > 65535) {
            fprintf(stderr, "sla_stats_sim: bad port in \"%s\"\n", peer.c_str());
            return false;
        }
        // The module prints the network-order address and port as little-endian
        // numbers: the first octet is the lowest byte, the port's bytes are swapped.
        uint32_t addrField = 0;
        memcpy(&addrField, &addr.s_addr, sizeof(addrField));
        uint16_t portField = htons(static_cast<uint16_t>(port));
        char text[32];
        snprintf(text, sizeof(text), "%u,%u", addrField, static_cast<unsigned>(portField));
        std::string path = m_dir + "/sla_voip_state";
        std::string tmp = path + ".tmp";
        {
            std::ofstream out(tmp, std::ios::trunc);
            out << text;
        }
        if (rename(tmp.c_str(), path.c_str()) != 0) return false;
        printf("voip state %s\n", text);
        return true;
    }

  private:
    void handleConfigLine(const std::string& line) {
        printf("config: %s\n", line.c_str());
        if (line.compare(0, 6, "iface=") == 0) {
            std::string name = line.substr(6);
            if (!name.empty() && name.size() <= 15 && name.find('/') == std::string::npos &&
                m_links.find(name) == m_links.end()) {
                setRate(name, Rate());
            }
        } else if (line == "enable=0") {
            m_enabled = false;
        } else if (line == "enable=1" && !m_enabled) {
            // The gap while collection was off is not an interval.
            m_enabled = true;
            const uint64_t now = wallMs();
            for (auto& entry : m_links) {
                append(entry.second.block, now, 0, sla::kKindStart);
                entry.second.lastTs = now;
            }
        }
    }

    // Maps the link's block, creating or extending the file in place: the daemon
    // may already have it mapped, so the file is never replaced.
    bool mapBlock(const std::string& name, Link& link) {
        std::string path = m_dir + "/" + name + "_mmap";
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            fprintf(stderr, "sla_stats_sim: open %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        struct stat st;
        if (fstat(fd, &st) != 0 ||
            (st.st_size < static_cast<off_t>(sla::kStatsBlockSize) &&
             ftruncate(fd, static_cast<off_t>(sla::kStatsBlockSize)) != 0)) {
            fprintf(stderr, "sla_stats_sim: size %s: %s\n", path.c_str(), strerror(errno));
            close(fd);
            return false;
        }
        void* addr = mmap(nullptr, sla::kStatsBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (addr == MAP_FAILED) {
            fprintf(stderr, "sla_stats_sim: mmap %s: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        auto* block = static_cast<sla::StatsBlock*>(addr);
        if (block->magic != sla::kStatsMagic || block->index >= sla::kStatsRecordCount) {
            __atomic_store_n(&block->magic, 0u, __ATOMIC_RELEASE);
            memset(block->records, 0, sizeof(block->records));
            block->index = 0;
        }
        link.block = block;
        link.lastTs = wallMs();
        append(block, link.lastTs, 0, sla::kKindStart);
        __atomic_store_n(&block->magic, sla::kStatsMagic, __ATOMIC_RELEASE);
        printf("block %s\n", path.c_str());
        return true;
    }

    static void append(sla::StatsBlock* block, uint64_t ts, uint32_t bytes, uint8_t kind) {
        uint32_t slot = block->index;
        sla::StatsRecord& r = block->records[slot];
        r.timestamp_ms = ts;
        r.bytes = bytes;
        r.reserved = 0;
        r.kind = kind;
        r.flag = 0;
        // The record is complete before the index announces it.
        __atomic_store_n(&block->index, (slot + 1) % sla::kStatsRecordCount, __ATOMIC_RELEASE);
    }

    std::string m_dir;
    uint32_t m_intervalMs;
    bool m_autoInterval;
    EstimatorLimits m_limits;
    bool m_running = false;
    int m_configFd = -1;
    bool m_enabled = true;
    std::string m_pending;
    std::string m_ratesFileSig;
    std::map<std::string, Link> m_links;
};

}  // namespace

int main(int argc, char** argv) {
    const char* envRoot = getenv("VORD_ROOT");
    std::string root = envRoot != nullptr && *envRoot != '\0' ? envRoot : "";
    uint32_t intervalMs = 0;  // chosen from the rates
    std::string ratesFile, voip;
    bool useConfig = true;
    std::vector<std::string> assignments;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char* opt) -> std::string {
            if (i + 1 >= argc) {
                fprintf(stderr, "sla_stats_sim: %s needs a value\n", opt);
                exit(2);
            }
            return argv[++i];
        };
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--root") {
            root = value("--root");
        } else if (arg == "--interval") {
            long ms = atol(value("--interval").c_str());
            if (ms < 1 || ms > 60000) {
                fprintf(stderr, "sla_stats_sim: --interval must be 1 to 60000 ms\n");
                return 2;
            }
            intervalMs = static_cast<uint32_t>(ms);
        } else if (arg == "--rates-file") {
            ratesFile = value("--rates-file");
        } else if (arg == "--voip") {
            voip = value("--voip");
        } else if (arg == "--live") {
            std::string link = value("--live");
            size_t eq = link.find('=');
            assignments.push_back(eq == std::string::npos ? link + "=live"
                                                          : link.substr(0, eq) + "=live:" + link.substr(eq + 1));
        } else if (arg == "--no-config") {
            useConfig = false;
        } else if (arg.find('=') != std::string::npos && arg[0] != '-') {
            assignments.push_back(arg);
        } else {
            fprintf(stderr, "sla_stats_sim: unknown argument \"%s\"\n\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root == "/") root.clear();
    // The sandbox root must exist: a mistyped one is not created.
    struct stat rootStat;
    if (!root.empty() && (stat(root.c_str(), &rootStat) != 0 || !S_ISDIR(rootStat.st_mode))) {
        fprintf(stderr, "sla_stats_sim: the root %s is not a directory\n", root.c_str());
        return 2;
    }

    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Simulator sim(root, intervalMs);
    if (!sim.prepareDir()) return 1;
    for (const std::string& a : assignments) {
        std::string name;
        Rate rate;
        if (!parseAssignment(a, name, rate)) {
            fprintf(stderr, "sla_stats_sim: bad link \"%s\" (want IFNAME=RATE)\n", a.c_str());
            return 2;
        }
        if (!sim.setRate(name, rate)) return 1;
    }
    sim.pollRatesFile(ratesFile);
    // A rate the daemon cannot read is refused, at the start and later (stdin,
    // rates file).
    if (!sim.fitInterval(false)) return 2;
    printf("record interval %u ms\n", sim.intervalMs());
    sim.startRunning();
    if (!voip.empty() && !sim.writeVoip(voip)) return 1;
    if (useConfig && !sim.openConfigFifo()) return 1;

    bool stdinOpen = true;
    std::string stdinPending;
    uint64_t nextTick = monoMs() + sim.intervalMs();
    while (!g_stop) {
        struct pollfd fds[2];
        nfds_t nfds = 0;
        int configIdx = -1, stdinIdx = -1;
        if (sim.configFd() >= 0) {
            configIdx = static_cast<int>(nfds);
            fds[nfds++] = {sim.configFd(), POLLIN, 0};
        }
        if (stdinOpen) {
            stdinIdx = static_cast<int>(nfds);
            fds[nfds++] = {STDIN_FILENO, POLLIN, 0};
        }
        uint64_t now = monoMs();
        int timeout = nextTick > now ? static_cast<int>(nextTick - now) : 0;
        int ready = poll(fds, nfds, timeout);
        if (ready < 0 && errno != EINTR) {
            perror("sla_stats_sim: poll");
            return 1;
        }
        if (ready > 0) {
            if (configIdx >= 0 && (fds[configIdx].revents & POLLIN)) sim.handleConfigData();
            if (stdinIdx >= 0 && fds[stdinIdx].revents != 0) {
                char buf[1024];
                ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
                if (n <= 0) {
                    stdinOpen = false;
                } else {
                    stdinPending.append(buf, static_cast<size_t>(n));
                    size_t nl;
                    while ((nl = stdinPending.find('\n')) != std::string::npos) {
                        std::string line = stdinPending.substr(0, nl);
                        stdinPending.erase(0, nl + 1);
                        if (line == "quit") g_stop = 1;
                        else sim.handleControlLine(line);
                    }
                }
            }
        }
        now = monoMs();
        if (now >= nextTick) {
            sim.pollRatesFile(ratesFile);
            sim.tick();
            // Fixed cadence; after a long stall, start afresh instead of catching up.
            nextTick += sim.intervalMs();
            if (nextTick <= now) nextTick = now + sim.intervalMs();
        }
    }
    return 0;
}
