// Link selection: the engine that keeps one InterfaceRtt record and one probe
// thread per managed link, and the per-period decision that moves the gaming
// UIDs' traffic to the best link.
//
// Locks, in the daemon's order:
//   slsControlMutex()    serialises every sequence that starts, stops, adds or
//                        removes probe threads or records (control thread, main
//                        thread's game-mode check, TCP socket monitor); taken
//                        before g_interfaceMapMutex.
//   g_interfaceMapMutex  the registry.
//   g_slsMapMutex        the map, every record and the selection state; held for
//                        each whole probe and each whole decision step.
// A probe thread takes g_slsMapMutex on every pass, so it is always joined with
// g_slsMapMutex released. A record is deleted only after its thread has been
// joined; the control mutex makes sure nobody starts a new one in between.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sls/InterfaceRtt.h"

// Guards the map, every record and the selection state. Usable from process start.
extern std::mutex g_slsMapMutex;

// For the status snapshot.
struct SlsLinkState {
    std::string ifname;
    int speed;
    int level;
    int missCount;
    int rssiPenaltyMs;
    bool running;
};
struct SlsState {
    bool exists = false;
    std::string current;
    int switchCount = 0;
    std::vector<SlsLinkState> links;
};

class SmartLinkSelection {
  public:
    using Clock = std::function<timeval()>;
    // Repoints the selection rules at an interface / destroys one UID's sockets.
    using InterfaceSwitcher = std::function<int(const char* ifname)>;
    using SocketKiller = std::function<int(const char* uid)>;

    // Kept for the start-up order; the locks need no run-time initialisation,
    // so this never touches a lock that may already be in use.
    static void Init();
    // The engine, created on first use.
    static SmartLinkSelection* instance();
    static bool isInstance();
    // Ends every probe thread, deletes the records and the engine.
    static void finalize();
    static void cleanup();
    // Serialises start/stop/add/remove sequences; see the top of this file.
    static std::recursive_mutex& slsControlMutex();

    // The engine's state for the status snapshot, without waiting for a probe:
    // fresh when g_slsMapMutex is free, otherwise the copy published by the last
    // probe or decision step. False (out untouched) when the engine does not exist.
    static bool trySnapshotState(SlsState& out);
    // Publishes the state for trySnapshotState. Caller holds g_slsMapMutex.
    static void publishState();

    // ---- probe control ----
    void initPingThreads();
    void createRttThreads();
    void threadStop();
    void threadResume();
    void threadDestory();
    void destoryPingThreads();
    bool updateSlsInterfacemap(const char* ifname, bool add);

    // ---- decision ----
    void slsChooseInterface();
    void calcInterface();
    InterfaceRtt* getFastestInterface();  // caller holds g_slsMapMutex
    bool hystCheckAndUpdate(timeval& window);  // caller holds g_slsMapMutex
    void gamingAiModeCheck();
    void setVoipIpAddressAndPort();

    // The records. Caller holds g_slsMapMutex.
    std::map<std::string, InterfaceRtt*>& slsInterfaceMap() { return m_slsInterfaceMap; }
    // Selection state, for tests. Caller holds g_slsMapMutex.
    InterfaceRtt* currentInterface() const { return m_currentInterface; }
    int switchCount() const { return m_switchCount; }

    // Seams for tests and benchmarks; an empty function restores the default
    // (gettimeofday, IptablesManager::set_SLS_interface, killSocketsForUID).
    // Set them while no decision step runs.
    void setClock(Clock clock);
    void setSwitchActions(InterfaceSwitcher switcher, SocketKiller killer);

  private:
    SmartLinkSelection();
    ~SmartLinkSelection() = default;
    SmartLinkSelection(const SmartLinkSelection&) = delete;
    SmartLinkSelection& operator=(const SmartLinkSelection&) = delete;

    timeval now() const;
    // Ends and joins the threads of the records named in `names` (every record
    // when null). Caller holds the control mutex and not g_slsMapMutex.
    void endThreads(const std::vector<std::string>* names);
    // Starts a probe thread for every record without one and marks every record
    // alive. Caller holds g_slsMapMutex.
    void startMissingThreads();
    // Deletes `record` (its thread already joined) and forgets it as the current
    // interface. Caller holds g_slsMapMutex.
    void deleteRecord(InterfaceRtt* record);

    std::map<std::string, InterfaceRtt*> m_slsInterfaceMap;
    InterfaceRtt* m_currentInterface = nullptr;
    timeval m_hystWindow{};
    int32_t m_switchCount = 0;
    uint64_t m_aiModeCheckStart = 0;  // seconds; main thread only

    Clock m_clock;
    InterfaceSwitcher m_switcher;
    SocketKiller m_killer;
};
