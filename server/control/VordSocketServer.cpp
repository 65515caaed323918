// The control channel of the daemon.
//
// One control thread owns the listening socket "/dev/socket/vord", accepts one
// client at a time and reads fixed 1032-byte records (msg_t) from it through an
// edge-triggered epoll instance. Every record is dispatched on the same thread, so
// command handlers never run concurrently with each other. When the client hangs
// up the thread starts over: it closes everything and re-creates the socket file.
//
// Nothing a client sent is lost to a hang-up, a deliberate departure from the
// documented behaviour, which tests the hang-up before the input and drops the
// clients waiting in the listen queue when it re-creates the socket:
//  - every complete record queued before the hang-up is served first (a partial
//    one is logged and dropped, see RecordStream);
//  - the listening socket then stops taking connections (shutdown(SHUT_RD): a new
//    client is refused, and connects again to the re-created socket), and the
//    clients already in its queue are served in turn before it is re-created.
//
// Stopping. stopSocketThreads() raises the stop request and sends SIGUSR1 to the
// control thread. The thread keeps SIGUSR1 blocked except inside its two waits
// (ppoll before accept, epoll_pwait while serving), which unblock it atomically.
// A signal sent at any moment therefore either interrupts the wait in progress or
// stays pending until the next wait starts, which then returns EINTR at once; the
// thread checks the stop request after every interrupted wait. A stray SIGUSR1
// from outside only logs: without the stop request the thread just waits again.

#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/VordSocketServer.h"

#include <cutils/sockets.h>
#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "config/Refusals.h"
#include "control/ControlState.h"
#include "control/FeatureCommands.h"
#include "control/InterfaceCommands.h"
#include "control/RecordStream.h"
#include "control/SignalHandler.h"
#include "control/WhitelistCommands.h"
#include "counters/Counters.h"
#include "counters/Refusal.h"
#include "monitors/DoubleWifiMonitor.h"
#include "rules/IptablesManager.h"

namespace {

constexpr const char* kSocketPath = "/dev/socket/vord";
constexpr int kListenBacklog = 2;
const pthread_t kNoThread = static_cast<pthread_t>(-1);

// The control thread, or kNoThread before it starts and after it is joined.
std::atomic<pthread_t> g_controlThread{kNoThread};
// The control thread's current epoll instance, -1 while it has none. The stopper
// sets it to -1: a serving thread that finds it changed has been asked to stop.
// Only the control thread closes the descriptor, so its number cannot be reused
// under a wait that is still running.
std::atomic<int> g_epollFd{-1};
// The stop request for every state of the thread, including creating and
// accepting, where there is no epoll instance.
std::atomic<bool> g_stopRequested{false};

// Payload of the last accepted gateway command; control thread only.
char g_lastGateway[64] = "";

// Credentials of the client being served (control thread only). The socket is
// open to every local user and serves one client at a time, so the log names
// who holds it.
ucred g_client{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};

// What the control thread does after a phase: serve the accepted client, take
// the next one after a hang-up, start over from the restart point, or end.
enum class Next { Serve, HungUp, Restart, Exit };

bool stopRequested() { return g_stopRequested.load(std::memory_order_acquire); }

void closeFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

// Command 6: 1 starts the dual Wi-Fi monitor, 0 stops it; a command that does
// not change its state does nothing, and any other value is refused.
void setDoubleWifiMonitor(const char* text) {
    Parameters* params = controlParameters();
    if (params == nullptr) return;
    if (VORD_REFUSED("setDoubleWifiMonitor", vord::switchRefusal(text))) return;
    const int on = atoi(text);
    if (on == 1 && !params->isDWMonitorStatus()) {
        DoubleWifiMonitor::instance();
    } else if (on == 0 && params->isDWMonitorStatus()) {
        DoubleWifiMonitor::finalize();
    }
}

// Command 4. A payload that does not fit the 63 characters of the gateway memory
// is refused, not cut: a cut list may end in a different but still valid address
// ("192.168.1.10" -> "192.168.1.1"). The gateways in force stay as they are, and
// the memory keeps the last accepted text.
void updateWifiGateway(const char* text) {
    if (strcmp(text, g_lastGateway) == 0) return;
    if (VORD_REFUSED("updateWifiGateway", vord::gatewayTextRefusal(text))) return;
    static_assert(sizeof(g_lastGateway) > vord::kGatewayTextLimit, "the memory holds a whole text");
    snprintf(g_lastGateway, sizeof(g_lastGateway), "%s", text);
    IptablesManager* iptables = IptablesManager::instance();
    Parameters* params = controlParameters();
    if (iptables == nullptr || params == nullptr) return;
    params->populateWifiGateway(text);
    // Re-apply the whitelist chain, whose RETURN rules exempt the gateways.
    iptables->setup_mux_whitelist();
}

// Accepts a client of the listening socket into `clientFd`. While `closing`
// (after a hang-up) it takes only a client already queued, and gives Restart
// when none is left; otherwise it waits for one.
Next acceptClient(int listenFd, const sigset_t& waitMask, bool closing, int& clientFd) {
    for (;;) {
        pollfd pfd{listenFd, POLLIN, 0};
        if (closing) {
            if (stopRequested()) return Next::Exit;
        } else if (ppoll(&pfd, 1, nullptr, &waitMask) < 0) {
            int err = errno;
            if (stopRequested()) return Next::Exit;
            if (err == EINTR) continue;
            ALOGE("accept fail, error=%s\n", strerror(err));
            return Next::Restart;
        }
        clientFd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (clientFd >= 0) {
            socklen_t len = sizeof(g_client);
            if (getsockopt(clientFd, SOL_SOCKET, SO_PEERCRED, &g_client, &len) != 0) {
                g_client = ucred{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
            }
            ALOGI("control client accepted: pid=%d uid=%d", static_cast<int>(g_client.pid),
                  static_cast<int>(g_client.uid));
            return Next::Serve;
        }
        int err = errno;
        if (stopRequested()) return Next::Exit;
        const bool empty = err == EAGAIN || err == EWOULDBLOCK;
        if (closing && empty) return Next::Restart;  // every queued client was served
        // The listening socket does not block: a client that vanished between the
        // wait and the accept just means waiting again.
        if (empty || err == EINTR || err == ECONNABORTED) continue;
        ALOGE("accept fail, error=%s\n", strerror(err));
        return Next::Restart;
    }
}

// Serves the accepted client until it hangs up (HungUp), a failing wait
// (Restart) or a stop (Exit). Edge-triggered: each wakeup reads everything
// queued, and every complete record is served before a hang-up is honoured.
Next serveClient(int clientFd, int epfd, const sigset_t& waitMask, RecordStream& stream) {
    for (;;) {
        epoll_event event{};
        int n = epoll_pwait(epfd, &event, 1, -1, &waitMask);
        if (n < 0) {
            int err = errno;
            if (stopRequested() || g_epollFd.load() != epfd) return Next::Exit;
            if (err == EINTR) continue;
            ALOGE("epoll_wait error");
            return Next::Restart;
        }
        if (n == 0) continue;
        RecordStream::End end = stream.read(
                clientFd, [epfd] { return !stopRequested() && g_epollFd.load() == epfd; },
                handleMessage);
        if (end == RecordStream::End::Stopped) return Next::Exit;
        if (end == RecordStream::End::HungUp || (event.events & EPOLLHUP)) {
            ALOGE("socket EPOLLHUP error, retry create socket");
            ALOGI("control client hung up: pid=%d uid=%d", static_cast<int>(g_client.pid),
                  static_cast<int>(g_client.uid));
            epoll_ctl(epfd, EPOLL_CTL_DEL, clientFd, nullptr);
            return Next::HungUp;
        }
    }
}

// Closes the control thread's epoll instance, if any, and withdraws it from the
// stopper unless the stopper already has.
void dropEpoll(int& epfd) {
    if (epfd < 0) return;
    int expected = epfd;
    g_epollFd.compare_exchange_strong(expected, -1);
    closeFd(epfd);
}

// Serves the clients of one listening socket, one at a time: the first, and
// after its hang-up those already queued. Restart once they are all served or
// on a failure, Exit on a stop.
Next serveListener(int listenFd, const sigset_t& waitMask, int& clientFd, int& epfd) {
    RecordStream stream;
    bool closing = false;
    for (;;) {
        Next next = acceptClient(listenFd, waitMask, closing, clientFd);
        if (next != Next::Serve) return next;
        epfd = epoll_create1(EPOLL_CLOEXEC);
        if (epfd < 0) {
            ALOGE("epoll_create fail, error=%s\n", strerror(errno));
            return Next::Restart;
        }
        g_epollFd.store(epfd);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = clientFd;
        if (epoll_ctl(epfd, EPOLL_CTL_ADD, clientFd, &event) != 0) {
            ALOGE("epoll_ctl error");
            return Next::Restart;
        }
        stream.reset();
        next = serveClient(clientFd, epfd, waitMask, stream);
        if (next != Next::HungUp) return next;
        dropEpoll(epfd);
        closeFd(clientFd);
        // No new client from here on (they are refused and connect again to the
        // re-created socket); those already queued are served first.
        if (!closing) shutdown(listenFd, SHUT_RD);
        closing = true;
    }
}

}  // namespace

int createSocket(const char* path) {
    if (path == nullptr) {
        ALOGE("NULL params\n");
        return -1;
    }
    // On the device init creates the socket (vord.rc: "socket vord ...") with its
    // owner, mode and SELinux label, and hands it over: a daemon without root
    // cannot replace a file in /dev/socket. The daemon then listens on a copy of
    // that descriptor each time round, so a hang-up closes the client and keeps
    // the file (a departure from re-creating the file, which only a daemon that
    // created it itself does).
    const char* base = strrchr(path, '/');
    const int inherited = android_get_control_socket(base != nullptr ? base + 1 : path);
    if (inherited >= 0) {
        const int fd = fcntl(inherited, F_DUPFD_CLOEXEC, 0);
        if (fd < 0) {
            ALOGE("Failed to open socket '%s', error=%s\n", path, strerror(errno));
            return -1;
        }
        ALOGI("Created socket success with '%s' (from init), sockfd=%d\n", path, fd);
        return fd;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ALOGE("Failed to open socket '%s', error=%s\n", path, strerror(errno));
        return -1;
    }
    const std::string file = vord::resolvePath(path);
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", file.c_str());

    if (unlink(file.c_str()) != 0 && errno != ENOENT) {
        ALOGE("Failed to unlink old socket '%s', error=%s\n", path, strerror(errno));
        close(fd);
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ALOGE("Failed to bind socket '%s', error=%s\n", path, strerror(errno));
        unlink(file.c_str());
        close(fd);
        return -1;
    }
    chmod(file.c_str(), 0666);  // any local user may connect
    ALOGI("Created socket success with '%s', sockfd=%d\n", path, fd);
    return fd;
}

pthread_t createSocketThreads(Parameters* params) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the signal must interrupt the waits
    if (sigaction(SIGUSR1, &action, nullptr) != 0) {
        ALOGE("sigaction error");
        return kNoThread;
    }

    // Published before the thread exists, so its first record already sees it.
    setControlParameters(params);
    g_stopRequested.store(false, std::memory_order_release);

    // The thread inherits a mask with SIGUSR1 blocked (see the top of this file).
    sigset_t usr1, previous;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &previous);
    pthread_t tid;
    int err = pthread_create(&tid, nullptr, socketThreadHandle, nullptr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (err != 0) {
        ALOGE("create thread fail, error=%s", strerror(err));
        return kNoThread;
    }
    ALOGI("create handle thread(thread id=%lu) for handle msg\n", static_cast<unsigned long>(tid));
    g_controlThread.store(tid);
    return tid;
}

void* socketThreadHandle(void*) {
    // The waits run with SIGUSR1 unblocked; everything else runs with it blocked.
    sigset_t waitMask;
    pthread_sigmask(SIG_SETMASK, nullptr, &waitMask);
    sigdelset(&waitMask, SIGUSR1);

    int listenFd = -1;
    int clientFd = -1;
    int epfd = -1;

    for (;;) {
        // Restart point: drop the epoll instance and both sockets.
        dropEpoll(epfd);
        closeFd(clientFd);
        closeFd(listenFd);
        if (stopRequested()) break;

        listenFd = createSocket(kSocketPath);
        if (listenFd < 0) {
            ALOGE("create socket failed\n");
            return nullptr;
        }
        if (listen(listenFd, kListenBacklog) != 0) {
            ALOGE("listen fail, error=%s\n", strerror(errno));
            usleep(100 * 1000);  // do not spin if the failure persists
            continue;
        }
        fcntl(listenFd, F_SETFL, fcntl(listenFd, F_GETFL) | O_NONBLOCK);
        if (serveListener(listenFd, waitMask, clientFd, epfd) == Next::Exit) break;
    }

    ALOGI("socket Thread exit");
    closeFd(clientFd);
    closeFd(listenFd);
    dropEpoll(epfd);
    return nullptr;
}

void handleMessage(msg_t msg) {
    msg.message[VORD_MSG_TEXT_SIZE - 1] = '\0';
    const char* text = msg.message;
    Parameters* params = controlParameters();
    vord::takeRefusal();  // nothing left over from outside a record
    switch (msg.id) {
        case 1: updateInterfaces(text); break;
        case 2: setUidWhitelist(text); break;
        case 3: if (params != nullptr) params->UpdateInterfaceMode(text); break;
        case 4: updateWifiGateway(text); break;
        case 5: setDWUidWhitelist(text); break;
        case 6: setDoubleWifiMonitor(text); break;
        case 7: setDDUidWhitelist(text); break;
        case 8: if (params != nullptr) params->UpdateInterfaceBssid(text); break;
        case 9: StartSlsServer(text); break;
        case 10: StopSlsServer(); break;
        case 11: setVoipStatus(text); break;
        case 12: updateSlsInterfacesRtt(text); break;
        case 13: setGameAiModeEnable(text); break;
        case 14: setGameAiModeCheckRtt(text); break;
        default:
            ALOGE("unknow mesage!!!");
            vord::noteRefusal();
            break;
    }
    // Refused when the handler refused the command or a part of it.
    vord::bump(vord::takeRefusal() ? vord::counters().controlRecordsRefused
                                   : vord::counters().controlRecordsServed);
}

void stopSocketThreads() {
    g_stopRequested.store(true, std::memory_order_release);
    g_epollFd.store(-1);
    pthread_t tid = g_controlThread.exchange(kNoThread);
    if (tid == kNoThread) {
        ALOGE("pthread kill error");
        return;
    }
    if (pthread_kill(tid, SIGUSR1) != 0) {
        // The thread has already ended by itself (its socket could not be
        // created); joining it only releases its resources and returns at once.
        ALOGE("pthread kill error");
    }
    pthread_join(tid, nullptr);
}
