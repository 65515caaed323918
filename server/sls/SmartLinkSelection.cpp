// The selection engine: the singleton, its records and their probe threads.
//
// Every sequence that creates, ends, adds or removes threads or records runs under
// the engine's control mutex, so a record is never deleted or replaced between the
// join of its thread and the delete, and no second thread is ever started for a
// record. Threads are joined with g_slsMapMutex released (the probe thread takes
// it on every pass); ending a thread also aborts its probe in progress, so a join
// waits for no probe time-out.
//
// Records whose link has left the registry are deleted by every teardown and
// never chosen, also when no map update removed them (game mode 2): a deliberate
// departure from the documented behaviour, which leaves them in place to be
// probed and chosen by a later start.

#define LOG_TAG "MUX-Vord-SlaPing"

#include "sls/SmartLinkSelection.h"

#include <log/log.h>

#include <string.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "config/Parameters.h"
#include "lifecycle/MainLoopWakeup.h"
#include "rules/IptablesManager.h"
#include "sls/PingThread.h"

std::mutex g_slsMapMutex;

namespace {

// Namespace-scope locks: constructed before main, so usable by any thread that a
// command reaches before Init() runs.
std::recursive_mutex g_slsInstanceMutex;
std::recursive_mutex g_slsControlMutex;
std::atomic<SmartLinkSelection*> g_slsInstance{nullptr};

// The state as of the last probe or decision step, for readers that must not
// wait for the engine (a decision step holds g_slsMapMutex through a switch's
// rule commands and socket destruction).
// A leaf lock: taken under g_slsMapMutex, never the other way round.
std::mutex g_publishedMutex;
SlsState g_published;

struct RegistryEntry {
    std::string name;
    bool slave;
};

// The registry's interfaces in key order. Caller holds g_interfaceMapMutex.
std::vector<RegistryEntry> registryEntries() {
    std::vector<RegistryEntry> out;
    for (const auto& entry : Parameters::instance()->interfaceInfoMap()) {
        if (entry.second != nullptr) out.push_back({entry.first, entry.second->slave});
    }
    return out;
}

std::vector<std::string> namesOf(const std::vector<RegistryEntry>& entries) {
    std::vector<std::string> names;
    for (const RegistryEntry& e : entries) names.push_back(e.name);
    return names;
}

bool listed(const std::vector<std::string>* names, const std::string& name) {
    return names == nullptr || std::find(names->begin(), names->end(), name) != names->end();
}

// Names of the records that `registry` does not hold. Caller holds g_slsMapMutex.
std::vector<std::string> strayNames(const std::map<std::string, InterfaceRtt*>& records,
                                    const std::vector<std::string>& registry) {
    std::vector<std::string> out;
    for (const auto& entry : records) {
        if (!listed(&registry, entry.first)) out.push_back(entry.first);
    }
    return out;
}

}  // namespace

// ---- singleton ----

void SmartLinkSelection::Init() {
    // Nothing to do: both locks are namespace-scope objects, ready before main.
    // Re-initialising one here could corrupt it under a thread that holds it.
}

std::recursive_mutex& SmartLinkSelection::slsControlMutex() { return g_slsControlMutex; }

SmartLinkSelection::SmartLinkSelection() {
    m_hystWindow = now();
}

SmartLinkSelection* SmartLinkSelection::instance() {
    SmartLinkSelection* engine = g_slsInstance.load(std::memory_order_acquire);
    if (engine != nullptr) return engine;
    // The control mutex first: creation runs initPingThreads, which takes it.
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    std::lock_guard<std::recursive_mutex> creation(g_slsInstanceMutex);
    engine = g_slsInstance.load(std::memory_order_acquire);
    if (engine != nullptr) return engine;
    engine = new SmartLinkSelection();
    engine->initPingThreads();
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        engine->m_currentInterface = nullptr;
        g_slsInstance.store(engine, std::memory_order_release);
    }
    return engine;
}

bool SmartLinkSelection::isInstance() {
    return g_slsInstance.load(std::memory_order_acquire) != nullptr;
}

void SmartLinkSelection::finalize() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    SmartLinkSelection* engine = g_slsInstance.load(std::memory_order_acquire);
    if (engine == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (auto& entry : engine->m_slsInterfaceMap) {
            if (entry.second != nullptr) entry.second->running = false;
        }
    }
    engine->threadDestory();
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (auto& entry : engine->m_slsInterfaceMap) delete entry.second;
        engine->m_slsInterfaceMap.clear();
        engine->m_currentInterface = nullptr;
        g_slsInstance.store(nullptr, std::memory_order_release);
        publishState();
    }
    delete engine;
}

void SmartLinkSelection::cleanup() { finalize(); }

void SmartLinkSelection::publishState() {
    SmartLinkSelection* engine = g_slsInstance.load(std::memory_order_acquire);
    SlsState state;
    if (engine != nullptr) {
        state.exists = true;
        if (engine->m_currentInterface != nullptr) state.current = engine->m_currentInterface->ifname;
        state.switchCount = engine->m_switchCount;
        for (const auto& entry : engine->m_slsInterfaceMap) {
            const InterfaceRtt* r = entry.second;
            if (r == nullptr) continue;
            state.links.push_back({r->ifname, r->speed, r->level, r->missCount, r->rssiPenaltyMs, r->running,
                                   r->probeFamily});
        }
        state.lastSwitch = engine->m_lastSwitch;
    }
    std::lock_guard<std::mutex> published(g_publishedMutex);
    g_published = std::move(state);
}

bool SmartLinkSelection::trySnapshotState(SlsState& out) {
    {
        std::unique_lock<std::mutex> lock(g_slsMapMutex, std::try_to_lock);
        if (lock.owns_lock()) publishState();
    }
    std::lock_guard<std::mutex> published(g_publishedMutex);
    if (!g_published.exists) return false;
    out = g_published;
    return true;
}

std::string SmartLinkSelection::publishedCurrent() {
    std::lock_guard<std::mutex> published(g_publishedMutex);
    return g_published.exists ? g_published.current : std::string();
}

// ---- seams ----

void SmartLinkSelection::setClock(Clock clock) { m_clock = std::move(clock); }

void SmartLinkSelection::setSwitchActions(InterfaceSwitcher switcher, SocketKiller killer) {
    m_switcher = std::move(switcher);
    m_killer = std::move(killer);
}

timeval SmartLinkSelection::now() const {
    if (m_clock) return m_clock();
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv;
}

// ---- records and threads ----

void SmartLinkSelection::endThreads(const std::vector<std::string>* names) {
    std::vector<std::pair<InterfaceRtt*, pthread_t>> joins;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (auto& entry : m_slsInterfaceMap) {
            InterfaceRtt* r = entry.second;
            if (r == nullptr || !listed(names, entry.first)) continue;
            r->alive = false;
            abortProbe(r);
            if (r->thread != InterfaceRtt::noThread()) joins.emplace_back(r, r->thread);
        }
    }
    pingWakeup().notify_all();
    for (auto& join : joins) pthread_join(join.second, nullptr);
    // The control mutex keeps these records in the map until we are done.
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    for (auto& join : joins) join.first->thread = InterfaceRtt::noThread();
}

void SmartLinkSelection::startMissingThreads() {
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* r = entry.second;
        if (r == nullptr || r->thread != InterfaceRtt::noThread()) continue;
        pthread_t tid;
        if (startProbeThread(r, &tid) == 0) {
            r->thread = tid;
        } else {
            ALOGE("%s could not start the probe thread of %s", "createRttThreads", r->ifname);
        }
    }
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second != nullptr) entry.second->alive = true;
    }
}

void SmartLinkSelection::deleteRecord(InterfaceRtt* record) {
    if (record == nullptr) return;
    if (m_currentInterface == record) m_currentInterface = nullptr;
    delete record;
}

InterfaceRtt* SmartLinkSelection::newRecord(const std::string& name, int minPingTimes, bool running,
                                            bool slave) {
    InterfaceRtt* fresh = InterfaceRtt::create(name.c_str(), minPingTimes, running);
    if (fresh == nullptr) return nullptr;
    fresh->m_slaveHint = slave;
    auto down = m_downLinks.find(name);
    if (down != m_downLinks.end()) {
        fresh->down = true;
        fresh->forceFail(down->second);
    }
    return fresh;
}

void SmartLinkSelection::initPingThreads() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> registry(g_interfaceMapMutex);
        names = namesOf(registryEntries());
    }
    // Records about to be replaced, and those of links no longer registered, lose
    // their threads first; the latter are deleted.
    std::vector<std::string> stray;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        stray = strayNames(m_slsInterfaceMap, names);
    }
    std::vector<std::string> ending = names;
    ending.insert(ending.end(), stray.begin(), stray.end());
    endThreads(&ending);
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (const std::string& name : stray) eraseRecord(name);
    }

    const int minPingTimes = Parameters::instance()->getMinPingTimes();
    std::lock_guard<std::mutex> registry(g_interfaceMapMutex);
    for (const RegistryEntry& entry : registryEntries()) {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        InterfaceRtt* fresh = newRecord(entry.name, minPingTimes, false, entry.slave);
        if (fresh == nullptr) continue;
        InterfaceRtt*& slot = m_slsInterfaceMap[entry.name];
        if (slot != nullptr && slot->thread != InterfaceRtt::noThread()) {
            // Only possible for an interface registered since the threads were
            // ended above; keep its record rather than orphan a running thread.
            delete fresh;
            continue;
        }
        deleteRecord(slot);
        slot = fresh;
    }
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    m_switchCount = 0;
}

void SmartLinkSelection::createRttThreads() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    startMissingThreads();
}

void SmartLinkSelection::threadStop() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second != nullptr) entry.second->running = false;
    }
}

void SmartLinkSelection::threadResume() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second != nullptr) entry.second->running = true;
    }
}

void SmartLinkSelection::threadDestory() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    endThreads(nullptr);
}

void SmartLinkSelection::destoryPingThreads() {
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    // The registry's records and those of links that have left it. Normally done
    // by threadDestory already; no record is deleted under a thread.
    endThreads(nullptr);

    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    std::vector<std::string> names;
    for (const auto& entry : m_slsInterfaceMap) names.push_back(entry.first);
    for (const std::string& name : names) eraseRecord(name);
    m_currentInterface = nullptr;
    m_removedCurrent.clear();
    publishState();
}

bool SmartLinkSelection::eraseRecord(const std::string& name) {
    auto it = m_slsInterfaceMap.find(name);
    if (it == m_slsInterfaceMap.end()) return false;
    if (it->second != nullptr && it->second->thread != InterfaceRtt::noThread()) return false;
    deleteRecord(it->second);
    m_slsInterfaceMap.erase(it);
    return true;
}

bool SmartLinkSelection::probingPaused() {
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    for (const auto& entry : m_slsInterfaceMap) {
        const InterfaceRtt* r = entry.second;
        if (r != nullptr && (!r->running || r->thread == InterfaceRtt::noThread())) return true;
    }
    return false;
}

bool SmartLinkSelection::updateSlsInterfacemap(const char* ifname, bool add) {
    if (ifname == nullptr) return true;
    std::lock_guard<std::recursive_mutex> control(g_slsControlMutex);
    Parameters* params = Parameters::instance();
    if (!params->isVoipRunning() && params->isGamingRunning() != 1) {
        // The map is not updated; a record of a link that left the registry is
        // only kept out of the choice until the next teardown deletes it.
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        auto it = m_slsInterfaceMap.find(ifname);
        if (it == m_slsInterfaceMap.end() || it->second == nullptr) return true;
        it->second->retired = !add;
        if (!add && it->second == m_currentInterface) vord::wakeMainLoop();
        return true;
    }
    const std::vector<std::string> name{ifname};

    if (!add) {
        {
            std::lock_guard<std::mutex> lock(g_slsMapMutex);
            auto it = m_slsInterfaceMap.find(ifname);
            if (it == m_slsInterfaceMap.end()) return true;
            if (it->second != nullptr) it->second->running = false;
        }
        endThreads(&name);
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        auto it = m_slsInterfaceMap.find(ifname);
        if (it == m_slsInterfaceMap.end()) return true;
        const bool wasCurrent = it->second != nullptr && it->second == m_currentInterface;
        eraseRecord(ifname);
        ALOGI("m_slsInterfaceMap del %s success!", ifname);
        if (wasCurrent) {
            // The gaming UIDs' rule points at a link that is gone: decide now.
            m_removedCurrent = ifname;
            vord::wakeMainLoop();
        }
        publishState();
        return true;
    }

    bool slave = false;
    {
        std::lock_guard<std::mutex> registry(g_interfaceMapMutex);
        InterfaceInfo_t* info = params->findInterface(ifname);
        slave = info != nullptr && info->slave;
    }
    // A record already stored under the name is replaced only once its thread
    // has ended.
    endThreads(&name);
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    InterfaceRtt* fresh = newRecord(ifname, params->getMinPingTimes(), true, slave);
    if (fresh == nullptr) return true;
    InterfaceRtt*& slot = m_slsInterfaceMap[ifname];
    deleteRecord(slot);
    slot = fresh;
    startMissingThreads();
    ALOGI("m_slsInterfaceMap add %s success!", ifname);
    return true;
}
