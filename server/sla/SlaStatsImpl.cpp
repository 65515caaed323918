// The kernel statistics channel: configuration lines, the mapped statistics
// blocks, the aggregation map and the VoIP state.

#define LOG_TAG "MUX-Vord-SlaStatsImpl"

#include "sla/SlaStatsImpl.h"

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "sla/SlaStatsBlock.h"

std::mutex g_slaMapMutex;

namespace {

constexpr const char* kSlaDir = "/proc/sla";
constexpr const char* kConfigPath = "/proc/sla/config";
constexpr const char* kVoipStatePath = "/proc/sla/sla_voip_state";
constexpr int kMmapAttempts = 3;
constexpr useconds_t kMmapRetrySleepUs = 500 * 1000;

std::atomic<SlaStatsImpl*> g_instance{nullptr};
// Serialises creation and destruction of the singleton: the control thread may
// ask for it before the main thread's first call.
std::mutex g_instanceMutex;

bool isCellularName(const char* name) {
    return strncmp(name, "rmnet_data", 10) == 0 || strncmp(name, "ccmni", 5) == 0 ||
           strncmp(name, "wwan", 4) == 0;
}

// Whether the block's file can change size under a mapping: any regular file
// but the module's own procfs file (procfs reports a size of 0 for it, and it
// cannot be truncated).
bool isResizable(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    struct statfs fs;
    return !(fstatfs(fd, &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC);
}

// A block file must cover the whole block before it is read, or the first read
// past its end faults. Applies to resizable files only (a host stand-in for the
// module).
bool coversBlock(int fd) {
    struct stat st;
    if (!isResizable(fd) || fstat(fd, &st) != 0) return true;
    return st.st_size >= static_cast<off_t>(sla::kStatsBlockSize);
}

}  // namespace

SlaStatsImpl* SlaStatsImpl::instance() {
    SlaStatsImpl* self = g_instance.load(std::memory_order_acquire);
    if (self != nullptr) return self;
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    self = g_instance.load(std::memory_order_relaxed);
    if (self == nullptr) {
        self = new SlaStatsImpl();
        g_instance.store(self, std::memory_order_release);
    }
    return self;
}

void SlaStatsImpl::finalize() {
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    SlaStatsImpl* self = g_instance.exchange(nullptr, std::memory_order_acq_rel);
    if (self == nullptr) return;
    self->freeMmap();
    delete self;
}

int SlaStatsImpl::writeStatsConfFile(const char* line) {
    // Non-blocking, so that a config channel nobody reads (a FIFO without a
    // reader) fails the open with ENXIO instead of stalling the daemon. The
    // module's file ignores the offset; O_APPEND lets a plain file standing in
    // for it collect every line in order.
    int fd = open(vord::resolvePath(kConfigPath).c_str(),
                  O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        ALOGE("open stats config file failed:%s", strerror(errno));
        return -1;
    }
    const size_t len = strlen(line) + 1;  // the module takes the NUL as end of line
    ssize_t n;
    do {
        n = write(fd, line, len);
    } while (n < 0 && errno == EINTR);
    int err = errno;
    close(fd);
    if (n < static_cast<ssize_t>(len)) {
        ALOGE("write the config failed:%s\n", strerror(n < 0 ? err : EIO));
        return -1;
    }
    return 0;
}

bool SlaStatsImpl::enableSLA(bool enable) {
    char line[512];
    if (enable) {
        Parameters* params = Parameters::instance();
        writeStatsConfFile(params->getStatsProtocols(line));
        writeStatsConfFile(params->getStatsPorts(line));
        {
            std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
            for (const auto& entry : params->interfaceInfoMap()) {
                snprintf(line, sizeof(line), "%s%s", "iface=", entry.first.c_str());
                writeStatsConfFile(line);
            }
        }
        initMmap();
    } else {
        freeMmap();
    }
    snprintf(line, sizeof(line), "%s%d", "enable=", enable ? 1 : 0);
    return writeStatsConfFile(line) == 0;
}

void* SlaStatsImpl::getStatsMmap(std::string ifname, int* blockFd) {
    if (blockFd != nullptr) *blockFd = -1;
    char path[128];
    snprintf(path, sizeof(path), "%s%s%s_mmap", kSlaDir, "/", ifname.c_str());
    int fd = open(vord::resolvePath(path).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0777);
    if (fd < 0) {
        ALOGE("open mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    if (!coversBlock(fd)) {
        ALOGE("mmap file %s is shorter than the statistics block", path);
        close(fd);
        return nullptr;
    }
    void* addr = mmap(nullptr, sla::kStatsBlockSize, PROT_READ, MAP_SHARED, fd, 0);
    int err = errno;
    if (addr == MAP_FAILED) {
        close(fd);
        ALOGE("mmap stats file failed:%s", strerror(err));
        return nullptr;
    }
    // A file that may shrink later is kept open: the estimator copies the block
    // from it instead of reading the mapping.
    if (blockFd != nullptr && isResizable(fd)) {
        *blockFd = fd;
    } else {
        close(fd);
    }
    return addr;
}

void SlaStatsImpl::releaseWrapper(linkStatsWrapper_t* wrapper) {
    if (wrapper == nullptr) return;
    if (wrapper->stats != nullptr) {
        munmap(wrapper->stats->mmapAddr, sla::kStatsBlockSize);
        delete wrapper->stats;
    }
    delete wrapper;
}

bool SlaStatsImpl::initMmap() {
    Parameters* params = Parameters::instance();
    // The registry stays locked for the whole walk, retry sleeps included, so the
    // wrappers match one state of the registry.
    std::lock_guard<std::mutex> registryLock(g_interfaceMapMutex);
    auto& registry = params->interfaceInfoMap();
    if (registry.empty()) {
        std::lock_guard<std::mutex> mapLock(g_slaMapMutex);
        return m_slaInterfaceMap.empty();
    }
    size_t mapped = 0;
    for (const auto& entry : registry) {
        const InterfaceInfo_t* record = entry.second;
        if (record == nullptr) continue;
        auto* wrapper = new linkStatsWrapper_t();
        snprintf(wrapper->ifname, sizeof(wrapper->ifname), "%s", record->name);
        const bool isWlan = !(record->metered || isCellularName(record->name));

        void* addr = nullptr;
        int blockFd = -1;
        for (int attempt = 0; attempt < kMmapAttempts; ++attempt) {
            addr = getStatsMmap(record->name, &blockFd);
            if (addr != nullptr) break;
            usleep(kMmapRetrySleepUs);
        }
        if (addr != nullptr) {
            wrapper->stats = new SlaStatsData(addr, isWlan, nullptr, blockFd);
            ++mapped;
        }
        {
            std::lock_guard<std::mutex> mapLock(g_slaMapMutex);
            // Two enables in a row (start-up racing an interface command) must
            // not leak the first wrapper.
            linkStatsWrapper_t*& slot = m_slaInterfaceMap[record->name];
            if (slot != wrapper) releaseWrapper(slot);
            slot = wrapper;
        }
        ALOGI("%s + %s\n", "initMmap", record->name);
    }
    std::lock_guard<std::mutex> mapLock(g_slaMapMutex);
    return mapped == m_slaInterfaceMap.size();
}

void SlaStatsImpl::freeMmap() {
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    for (auto& entry : m_slaInterfaceMap) releaseWrapper(entry.second);
    m_slaInterfaceMap.clear();
}

bool SlaStatsImpl::updateSlaInterfacemap(const char* ifname, bool add) {
    // The registry has already changed; the map is rebuilt from it as a whole.
    freeMmap();
    writeStatsConfFile("enable=0");
    enableSLA(true);
    ALOGI(add ? "m_slaInterfaceMap add %s success!" : "m_slaInterfaceMap del %s success!",
          ifname != nullptr ? ifname : "");
    return true;
}

void SlaStatsImpl::enableSlaVoipState(bool enable, const char* uid) {
    char uidLine[512];
    snprintf(uidLine, sizeof(uidLine), "%s%s", "voip_uid=", uid != nullptr ? uid : "");
    if (enable) {
        writeStatsConfFile(uidLine);
        writeStatsConfFile("voip_enable=1");
    } else {
        writeStatsConfFile("voip_enable=0");
        writeStatsConfFile(uidLine);
    }
}

int SlaStatsImpl::getSlaVoipState(char* address, char* port) {
    int fd = open(vord::resolvePath(kVoipStatePath).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ALOGE("open voip state file failed:%s", strerror(errno));
        return -1;
    }
    char text[21] = {};
    ssize_t n;
    do {
        n = read(fd, text, 20);
    } while (n < 0 && errno == EINTR);
    if (n >= 4) {
        const char* comma = strchr(text, ',');
        if (comma != nullptr) {
            // Fields are copied without a terminator: callers pass zeroed buffers.
            const size_t head = static_cast<size_t>(comma - text);
            memcpy(address, text, head);
            memcpy(port, comma + 1, static_cast<size_t>(n) - head - 1);
        }
    }
    close(fd);
    return static_cast<int>(n);
}
