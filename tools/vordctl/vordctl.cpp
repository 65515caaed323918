// vordctl: sends control commands to a running vord over its local socket.
//
//   vordctl [--socket PATH] [--timeout SECONDS] [-n|--dry-run] [--force] COMMAND [PAYLOAD]...
//   vordctl status [--json] [--watch] [--file PATH]   (status.cpp)
//
// The daemon sends no reply, so a payload it would refuse (in whole or in part)
// would vanish without a word: each payload is checked first with the daemon's own
// functions, and a refused one stops vordctl with the daemon's reason before
// anything is sent (exit 2). --force sends it anyway; "raw" is never checked.
//
// Every command becomes one 1032-byte record, written with one write; all
// commands of one invocation go over one connection, in order. The daemon sends
// no reply, so before closing, vordctl waits until the daemon has read every
// record: its exit status then says the records arrived.
//
// The daemon serves one client at a time and runs each command to its end before
// it reads the next record, so a connection can wait in its listen queue, or its
// records in the socket, for as long as another client or a long command (an
// interface add without the kernel module takes 1.5 s per mapped block) keeps it
// busy. vordctl waits through that up to --timeout, saying so on stderr. No
// socket file, or one that nobody listens on, is a daemon that is not running:
// that fails at once.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <linux/sockios.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <vord/RootPath.h>

#include "control/PayloadCheck.h"
#include "control/msg.h"
#include "status.h"

namespace {

struct Command {
    const char* name;
    int id;
    const char* payload;  // shown in --help; null when the command takes none
    const char* what;
};

const Command kCommands[] = {
    {"ifaces", 1, "IFACE[,IFACE...]", "the interfaces to manage (\"\" for none)"},
    {"whitelist", 2, "UID[,UID...]|NULL", "SLA application whitelist"},
    {"mode", 3, "0|1", "metered mode of the cellular interfaces"},
    {"gateway", 4, "ADDR[,ADDR...]", "Wi-Fi gateway addresses"},
    {"dw-whitelist", 5, "UID[,UID...]|NULL", "dual-Wi-Fi application whitelist"},
    {"dw-monitor", 6, "1|0", "start / stop the dual Wi-Fi monitor"},
    {"dd-whitelist", 7, "UID[,UID...]|NULL", "dual-data application whitelist"},
    {"bssid", 8, "BSSID[,BSSID]", "BSSIDs of wlan0 and wlan1"},
    {"sls-start", 9, "UID[,UID...]", "start link selection for these applications"},
    {"sls-stop", 10, nullptr, "stop link selection"},
    {"voip", 11, "UID|0", "voice call of this application started / ended (0)"},
    {"rtt", 12, "MS", "RTT measured by the framework, in milliseconds"},
    {"game-mode", 13, "UID[,UID...]|0", "enable game mode for these applications / disable (0)"},
    {"game-rtt-check", 14, "1|0", "game-mode RTT check on / off"},
};

constexpr size_t kMaxPayload = VORD_MSG_TEXT_SIZE - 1;
// The daemon re-creates its socket each time a client hangs up; a connection
// refused (or a missing file) for longer than this is a daemon not listening.
constexpr auto kRecreateWindow = std::chrono::milliseconds(500);
constexpr int kDefaultTimeoutSeconds = 60;
// A wait longer than this is reported once on stderr.
constexpr auto kBusyNotice = std::chrono::milliseconds(1500);

using Clock = std::chrono::steady_clock;

// The whole delivery: connecting, queueing and the daemon reading the records.
struct Wait {
    Clock::time_point start = Clock::now();
    Clock::time_point deadline;
    int seconds = kDefaultTimeoutSeconds;
    bool told = false;

    bool over() const { return Clock::now() >= deadline; }
    // Says once, after kBusyNotice, that the daemon is busy and how long we wait.
    void noticeBusy() {
        if (told || Clock::now() - start < kBusyNotice) return;
        told = true;
        fprintf(stderr,
                "vordctl: vord is busy (serving another client or a long command); waiting up "
                "to %d s\n",
                seconds);
    }
};

void usage(FILE* out) {
    fprintf(out,
            "usage: vordctl [--socket PATH] [--timeout SECONDS] [-n|--dry-run] [--force]\n"
            "               COMMAND [PAYLOAD] [COMMAND [PAYLOAD]]...\n"
            "       vordctl status [--json] [--watch] [--file PATH]   (see vordctl status --help)\n"
            "\n"
            "Sends commands to vord over its control socket, all over one connection, in\n"
            "order. The socket is /dev/socket/vord, under $VORD_ROOT when that is set.\n"
            "\n"
            "Commands (name, id, payload):\n");
    for (const Command& c : kCommands) {
        fprintf(out, "  %-15s %2d  %-20s %s\n", c.name, c.id, c.payload ? c.payload : "(none)",
                c.what);
    }
    fprintf(out,
            "  %-15s %2s  %-20s %s\n"
            "  %-15s %2s  %-20s %s\n"
            "\n"
            "Options:\n"
            "  --socket PATH   connect to PATH instead\n"
            "  --timeout SECONDS\n"
            "                  how long to wait while vord is busy with another client or a\n"
            "                  long command (default %d); without a listening daemon vordctl\n"
            "                  fails at once\n"
            "  -n, --dry-run   print the records instead of sending them\n"
            "  --force         send payloads that vord would refuse (by default such a\n"
            "                  payload stops vordctl with vord's reason, exit 2, and nothing\n"
            "                  is sent; 'raw' is never checked)\n"
            "  -h, --help      this text\n"
            "\n"
            "Options come before the first command. Payloads are at most %zu bytes.\n"
            "Example: vordctl ifaces wlan0,rmnet_data0 gateway 192.168.1.1 whitelist 10123\n",
            "ID", "", "PAYLOAD", "a command by its id (1-14)", "raw", "", "ID TEXT",
            "any id (the daemon ignores unknown ones)", kDefaultTimeoutSeconds, kMaxPayload);
}

const Command* findCommand(const std::string& word) {
    for (const Command& c : kCommands) {
        if (word == c.name) return &c;
    }
    return nullptr;
}

bool parseInt32(const char* text, int32_t* out) {
    if (*text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

msg_t makeRecord(int32_t id, const std::string& text) {
    msg_t msg;
    memset(&msg, 0, sizeof(msg));
    msg.id = id;
    msg.length = static_cast<int32_t>(text.size());
    memcpy(msg.message, text.data(), text.size());
    return msg;
}

// Turns the command words into records. False (with a message) on any error,
// and, unless `force`, on a payload the daemon would refuse.
bool parseCommands(int argc, char** argv, int i, bool force, std::vector<msg_t>* records) {
    while (i < argc) {
        std::string word = argv[i++];
        const Command* cmd = findCommand(word);
        int32_t id = 0;
        bool raw = word == "raw";
        if (raw) {
            if (i >= argc || !parseInt32(argv[i], &id)) {
                fprintf(stderr, "vordctl: 'raw' needs a numeric id and a text\n");
                return false;
            }
            ++i;
        } else if (cmd == nullptr && parseInt32(word.c_str(), &id)) {
            if (id < 1 || id > 14) {
                fprintf(stderr, "vordctl: unknown command id %d (1-14; 'raw ID TEXT' sends any)\n", id);
                return false;
            }
            cmd = &kCommands[id - 1];
        } else if (cmd == nullptr) {
            fprintf(stderr, "vordctl: unknown command '%s' (see vordctl --help)\n", word.c_str());
            return false;
        }
        if (cmd != nullptr) id = cmd->id;

        std::string payload;
        if (raw || cmd->payload != nullptr) {
            if (i >= argc) {
                fprintf(stderr, "vordctl: missing payload for '%s'\n", word.c_str());
                return false;
            }
            payload = argv[i++];
        }
        if (payload.size() > kMaxPayload) {
            fprintf(stderr, "vordctl: payload of '%s' is %zu bytes; a record holds at most %zu\n",
                    word.c_str(), payload.size(), kMaxPayload);
            return false;
        }
        const std::string why = raw || force ? "" : vord::payloadRefusal(id, payload);
        if (!why.empty()) {
            fprintf(stderr, "vordctl: %s: vord refuses this payload: %s; nothing sent (--force sends it anyway)\n",
                    word.c_str(), why.c_str());
            return false;
        }
        records->push_back(makeRecord(id, payload));
    }
    return true;
}

// Connects to the daemon. A refused connection or a missing file is retried for
// kRecreateWindow (the daemon may be re-creating its socket), then reported as a
// daemon that is not listening. A full listen queue is a busy daemon: retried
// until the deadline. -1 on failure, after a message.
int connectDaemon(const std::string& path, Wait& wait) {
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        fprintf(stderr, "vordctl: socket path too long: %s\n", path.c_str());
        return -1;
    }
    memcpy(addr.sun_path, path.c_str(), path.size());
    const auto refusedUntil = Clock::now() + kRecreateWindow;
    for (;;) {
        // Non-blocking, so that a full listen queue fails with EAGAIN instead of
        // blocking without a limit; the socket blocks again once connected.
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            fprintf(stderr, "vordctl: socket: %s\n", strerror(errno));
            return -1;
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            return fd;
        }
        int err = errno;
        close(fd);
        if (err == EAGAIN) {
            if (wait.over()) {
                fprintf(stderr,
                        "vordctl: vord stayed busy for %d s (its listen queue is full); not sent "
                        "(see --timeout)\n",
                        wait.seconds);
                return -1;
            }
            wait.noticeBusy();
        } else if (err == ENOENT || err == ECONNREFUSED) {
            if (Clock::now() >= refusedUntil) {
                fprintf(stderr, "vordctl: vord is not listening on %s: %s (is vord running?)\n",
                        path.c_str(),
                        err == ENOENT ? "no socket file" : "connection refused");
                return -1;
            }
        } else {
            fprintf(stderr, "vordctl: cannot connect to %s: %s\n", path.c_str(), strerror(err));
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

enum class Delivery { Done, Lost, Failed };

// Writes the records and waits until the daemon has read all of them. Lost means
// the connection was dropped unread (a daemon of an older kind drops the
// clients queued on a listening socket it replaces), so sending again is safe.
Delivery sendRecords(int fd, const std::vector<msg_t>& records, const std::string& path,
                     Wait& wait) {
    for (const msg_t& msg : records) {
        ssize_t n = send(fd, &msg, sizeof(msg), MSG_NOSIGNAL);
        if (n == static_cast<ssize_t>(sizeof(msg))) continue;
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) return Delivery::Lost;
        fprintf(stderr, "vordctl: write to %s failed: %s\n", path.c_str(),
                n < 0 ? strerror(errno) : "short write");
        return Delivery::Failed;
    }
    for (;;) {
        int unread = 0;
        if (ioctl(fd, SIOCOUTQ, &unread) != 0) {
            fprintf(stderr, "vordctl: SIOCOUTQ: %s\n", strerror(errno));
            return Delivery::Failed;
        }
        if (unread == 0) break;
        if (wait.over()) {
            fprintf(stderr,
                    "vordctl: vord has not read the commands within %d s (busy with another "
                    "client or a long command; see --timeout)\n",
                    wait.seconds);
            return Delivery::Failed;
        }
        wait.noticeBusy();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    int err = 0;
    socklen_t len = sizeof(err);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    return err == ECONNRESET ? Delivery::Lost : Delivery::Done;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath = vord::resolvePath("/dev/socket/vord");
    bool dryRun = false, force = false;
    Wait wait;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        std::string opt = argv[i];
        if (opt == "-h" || opt == "--help") {
            usage(stdout);
            return 0;
        } else if (opt == "-n" || opt == "--dry-run") {
            dryRun = true;
        } else if (opt == "--force") {
            force = true;
        } else if (opt == "--socket" && i + 1 < argc) {
            socketPath = argv[++i];
        } else if (opt == "--timeout" && i + 1 < argc) {
            int32_t seconds = 0;
            if (!parseInt32(argv[++i], &seconds) || seconds < 1) {
                fprintf(stderr, "vordctl: --timeout wants a whole number of seconds, at least 1\n");
                return 2;
            }
            wait.seconds = seconds;
        } else {
            fprintf(stderr, "vordctl: unknown option '%s' (see vordctl --help)\n", opt.c_str());
            return 2;
        }
    }
    if (i >= argc) {
        usage(stderr);
        return 2;
    }

    if (strcmp(argv[i], "status") == 0) return runStatus(argc - i - 1, argv + i + 1);

    std::vector<msg_t> records;
    if (!parseCommands(argc, argv, i, force, &records)) return 2;

    if (dryRun) {
        for (const msg_t& msg : records) {
            printf("id=%d length=%d message=[%s]\n", msg.id, msg.length, msg.message);
        }
        return 0;
    }

    // Several clients at once compete for the one the daemon serves; while it
    // re-creates its socket the others are refused. A random pause spreads their
    // next attempts.
    srand(static_cast<unsigned>(getpid()));
    wait.start = Clock::now();
    wait.deadline = wait.start + std::chrono::seconds(wait.seconds);
    for (;;) {
        int fd = connectDaemon(socketPath, wait);
        if (fd < 0) return 1;
        Delivery result = sendRecords(fd, records, socketPath, wait);
        close(fd);
        if (result == Delivery::Done) return 0;
        if (result == Delivery::Failed) return 1;
        // Dropped from the queue of a socket the daemon replaced after serving
        // someone else: still busy, try again.
        if (wait.over()) {
            fprintf(stderr, "vordctl: %s kept dropping the connection for %d s\n",
                    socketPath.c_str(), wait.seconds);
            return 1;
        }
        wait.noticeBusy();
        std::this_thread::sleep_for(std::chrono::milliseconds(1 + rand() % 20));
    }
}
