// sla_stats_sim: host stand-in for the kernel module behind "/proc/sla".
//
// Under <root>/proc/sla it reads the daemon's configuration lines from a FIFO
// ("config"), and keeps one statistics block per link ("<ifname>_mmap") filled
// with interval records at the rate given for the link. Rates come from the
// command line and can be changed while it runs (stdin lines or a rates file),
// or follow a host interface's byte counters.

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
    "1024 bits and 1 mbit 1024 kbit, the daemon's own units (e.g. wlan0=8000kbit,\n"
    "rmnet_data0=4mbit). RATE 'live' or 'live:DEV' follows the tx_bytes+rx_bytes\n"
    "counters of the host interface IFNAME (or DEV) in /sys/class/net.\n"
    "\n"
    "options:\n"
    "  --root DIR         sandbox root (default: $VORD_ROOT, else /)\n"
    "  --interval MS      record period in milliseconds (default 100)\n"
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
    Simulator(std::string root, uint32_t intervalMs) : m_dir(root + "/proc/sla"), m_intervalMs(intervalMs) {}

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
        setRate(name, rate);
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
    uint32_t intervalMs = 100;
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
    if (!voip.empty() && !sim.writeVoip(voip)) return 1;
    if (useConfig && !sim.openConfigFifo()) return 1;

    bool stdinOpen = true;
    std::string stdinPending;
    uint64_t nextTick = monoMs() + intervalMs;
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
            nextTick += intervalMs;
            if (nextTick <= now) nextTick = now + intervalMs;
        }
    }
    return 0;
}
