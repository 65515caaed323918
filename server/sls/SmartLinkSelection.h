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
//                        each whole decision step, and by a probe thread only to
//                        read its record and to enter its result.
// A probe's network I/O (connect, exchanges, TCP_INFO) runs with no lock held: a
// deliberate departure from the documented "whole probe under the lock", so that
// probes of different links run side by side and neither the decision step, the
// status snapshot nor a command ever waits for a probe. A probe thread takes
// g_slsMapMutex on every pass, so it is always joined with g_slsMapMutex
// released; ending a record's thread also aborts its probe in progress. A record
// is deleted only after its thread has been joined; the control mutex makes sure
// nobody starts a new one in between.
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
    int probeFamily;  // AF_INET, AF_INET6; 0 before the first probe
};
// The last switch the decision made, and why.
struct SlsLastSwitch {
    bool valid = false;      // no switch yet when false
    int64_t wallMs = 0;      // when (the engine's clock, wall time)
    std::string from, to;    // from is empty when no link was current
    std::string reason;      // initial, better-level, link-failed, carrier-lost, admin-down,
                             // link-removed, address-lost, stall, framework-removed
    std::string detail;      // one line for people ("wlan0 failed after 5 misses")
};
struct SlsState {
    bool exists = false;
    std::string current;
    int switchCount = 0;
    std::vector<SlsLinkState> links;
    SlsLastSwitch lastSwitch;
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

    // The engine's state for the status snapshot, without waiting for the
    // engine: fresh when g_slsMapMutex is free, otherwise the copy published by the last
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
    // Whether some record is paused (not running) or has no probe thread.
    bool probingPaused();

    // ---- failover (server/sls/LinkFailover.cpp) ----
    // A link event for `ifname` (carrier lost, administratively down, removed,
    // last IPv4 address lost): its record fails at once (forceFail), one line is
    // logged ("wlan0 lost carrier: link failed") and the main loop is woken for a
    // decision. A down link is left out of the choice while any other link is
    // not down. Remembered for records created while the link stays down.
    void linkDown(const std::string& ifname, LinkFailCause cause);
    // The link is up again: its record is probed at once; it counts as alive only
    // through the samples of its probes.
    void linkUp(const std::string& ifname);
    // A stall of `ifname` confirmed (the gaming connections stalled and a probe
    // to the built-in server got no answer): the record fails at once and the
    // main loop is woken.
    void linkStalled(const std::string& ifname);
    // The current link's name as last published; "" when none. Never waits.
    static std::string publishedCurrent();

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
    // Deletes the record stored under `name` unless its thread still runs; true
    // when it was deleted. Caller holds g_slsMapMutex.
    bool eraseRecord(const std::string& name);
    // A new record for `name`, failed at once when the link is known to be down.
    // Caller holds g_slsMapMutex.
    InterfaceRtt* newRecord(const std::string& name, int minPingTimes, bool running, bool slave);
    // Fails `name`'s record for `cause` unless it already is for a cause; true
    // when it changed. Caller holds g_slsMapMutex.
    bool failRecord(const std::string& name, LinkFailCause cause, bool down);
    // Records the switch from `prev` to `best` and why. Caller holds g_slsMapMutex.
    void noteSwitch(const InterfaceRtt* prev, const InterfaceRtt* best);
    // Whether `r` is left out of the choice now. Caller holds g_slsMapMutex.
    bool excluded(const InterfaceRtt* r, bool anyUp) const;
    std::map<std::string, InterfaceRtt*> m_slsInterfaceMap;
    InterfaceRtt* m_currentInterface = nullptr;
    timeval m_hystWindow{};
    int32_t m_switchCount = 0;
    uint64_t m_aiModeCheckStart = 0;  // seconds; main thread only
    // Links down by a link event, and why (g_slsMapMutex).
    std::map<std::string, LinkFailCause> m_downLinks;
    SlsLastSwitch m_lastSwitch;
    // The current link removed by the framework: the next switch's reason.
    std::string m_removedCurrent;

    Clock m_clock;
    InterfaceSwitcher m_switcher;
    SocketKiller m_killer;
};
