#pragma once
// The service's one stateful object: the configuration store, the engagement engine, the tap
// provider, the caches and the timers. Its queue `serialQueue` is the lock of its state: every
// request, both timers, the process registry listener and the wake work run there, and every field
// below that is not tied to a lock of its own is touched only there.
//
// Construction does the whole start-up and returns with the timers running; it does not wait for
// the audio hardware. Closures given to other objects hold the runtime weakly (through `anchor_`),
// so a hook that fires after the runtime is gone does nothing.
//
// Subsystems that are not part of this build are absent. Each place that would call one is a
// private function named after the call, doing nothing (or failing a request plainly) until it lands.

#include "base/Dispatch.hpp"
#include "core/config/AutoDirectList.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/config/TonaviConfig.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "core/engine/EngagementEngine.hpp"
#include "core/outputs/OutputSelectionOrder.hpp"
#include "core/outputs/OutputTopologyTracker.hpp"
#include "core/smart/AudioOnsetTrail.hpp"
#include "core/smart/SmartTickState.hpp"
#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/Workspace.hpp"
#include "service/AppDirectory.hpp"
#include "service/CoalescedRefreshState.hpp"
#include "service/RecencyTracker.hpp"
#include "service/ServiceTapProvider.hpp"
#include "service/devices/BluetoothInfo.hpp"
#include "service/devices/OutputGroupManager.hpp"
#include "service/devices/TonaviDeviceManager.hpp"
#include "service/midi/MIDIMapper.hpp"
#include "service/plugins/AUCatalogue.hpp"
#include "service/taps/AudioSnapshot.hpp"
#include "service/taps/OutputEligibility.hpp"
#include "service/taps/TapProcessIdentity.hpp"
#include "service/worker/TapRecoveryBackoff.hpp"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace tonavi {

class TonaviRuntime {
  public:
    using IDSet = EngagementEngine::IDSet;

    // Everything the runtime is built over. Tests inject a private machine, a fake provider, a
    // temporary store and a manual clock; the entry point uses the process's platform backend.
    struct Environment {
        std::string version = versionFromEnvironment();
        std::shared_ptr<TonaviConfigStore> store;
        std::shared_ptr<AudioHardware> audio;
        std::shared_ptr<Workspace> workspace;
        // Null: a provider that cannot take taps and says so.
        std::shared_ptr<ServiceTapProvider> tapProvider;
        // Drives the runtime's queues, timers and the warm-up's waits.
        std::shared_ptr<DispatchClock> clock = DispatchClock::system();
        // Seconds since 1970, for timed mutes, recency and records. Null: the system clock.
        std::function<double()> wallClock;
        // The slow source of Bluetooth battery and signal, run in the background. Empty: none.
        BluetoothInfo::ProfilerRead bluetoothProfiler;
        // The installed applications' desktop entries, read off serialQueue. Empty: the user's XDG
        // folders.
        AppDirectory::Source installedApplications;
        // The system's MIDI sources. Null: no MIDI; the mappings still work as a list.
        std::shared_ptr<MIDISystem> midi;
        // The installed effect plug-ins, read for the catalogue (no plug-in code runs in the
        // service). Null: the platform's host.
        std::shared_ptr<PluginHost> pluginHost;
    };

    // Cached hardware state: the status reads only this, never the hardware.
    struct HardwareSnapshot {
        std::string defaultOutputUID;
        std::string defaultInputUID;
        std::string soundEffectsUID;
        double sampleRate = 48000.0;
        std::int64_t bufferFrames = 0; // the default output's I/O cycle; 0 when unknown
        std::optional<double> outputHardwareVolume;
        bool outputMuted = false;
        std::vector<DeviceLiveStatus> devices;
        std::set<std::string> deviceUIDs;
    };

    struct ProcessEntry {
        std::string bundleID;
        pid_t pid = 0;
        bool isRunning = false;
    };
    struct Activity {
        bool playing = false;
        bool capturing = false;
    };
    // How far a discovery cache can be trusted: the watchdog rebuilds nothing on stale or failed reads.
    struct DiscoveryHealth {
        double lastSuccessfulRead = 0; // seconds since 1970; 0: never
        double lastAttempt = 0;
        bool latestReadSucceeded = false;
    };

    // The waits of the warm-up: a probe faster than this ends it; at most this many probes.
    // The depth of the manual duck, in decibels; 0 when it is off.
    static constexpr double manualDuckDepthDB = -15.0;
    static constexpr double warmUpFastProbeSeconds = 0.05;
    static constexpr int warmUpMaxProbes = 40;
    static constexpr double warmUpRetrySeconds = 0.5;
    static constexpr double deferredSaveSeconds = 0.25;
    static constexpr double watchdogFirstSeconds = 2.0;
    static constexpr double watchdogIntervalSeconds = 2.0;
    static constexpr double smartFirstSeconds = 4.0;
    static constexpr double smartIntervalSeconds = 2.0;
    static constexpr double wakeDelaySeconds = 0.25;
    static constexpr const char* reconcileKey = "@reconcile";
    // A hardware snapshot younger than this answers the status without a new probe.
    static constexpr double hardwareSnapshotLifetimeSeconds = 1.0;
    static constexpr double settlingPassSeconds = 0.75;
    static constexpr double deviceUseDebounceSeconds = 30.0;
    // Discovery pacing: the least age of a snapshot before another probe, and the pause after a
    // failed one.
    static constexpr double audioSnapshotFastInterval = 0.35;
    static constexpr double audioSnapshotInterval = 1.5;
    static constexpr double audioSnapshotRetryAfterFailure = 0.5;
    // The watchdog's limits: discovery older than this is not trusted, IO older than this is dead,
    // and a tap of an app without row-level control that carried no sound for this long goes.
    static constexpr double trustedDiscoverySeconds = 6.0;
    static constexpr double ioStaleSeconds = 6.0;
    static constexpr double idleReleaseSeconds = 20.0;

    explicit TonaviRuntime(Environment environment);
    // The service never releases its runtime; tests do. Stops timers and queues before the state goes.
    ~TonaviRuntime();
    TonaviRuntime(const TonaviRuntime&) = delete;
    TonaviRuntime& operator=(const TonaviRuntime&) = delete;

    // The entry from the control server and from MIDI. `completion` may run before this returns, or
    // later on another queue.
    void handleAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion);
    // Runs handleLocked on serialQueue and waits for it.
    TonaviReply handle(const TonaviRequest& request);
    // The socket's answer to `status`, already encoded (see statusCache_). Waits for serialQueue only
    // when no reply recent enough is at hand, or when a client's change must show first.
    std::shared_ptr<const std::string> encodedStatusReply();

    // Save now. On serialQueue.
    void persist();
    // Save 0.25 s after the last of a stream of calls. On serialQueue.
    void persistContinuousControl();
    // The service's save, keeping the user-interface settings on disk. Raises when the save fails.
    void saveConfigToDisk(const TonaviConfig& config);
    // The stop body: flushes the configuration, then lets every tap go. On serialQueue.
    void releaseTapsThenStop();

    // Coalesced blocking tap work on tapWorkQueue, by key ("@reconcile" or a bundle ID).
    void scheduleTapWork(const std::string& key, std::function<void()> work);
    void scheduleTapRefresh(const std::string& bundleID, bool force);
    // Whether the tap of this app is bound elsewhere than it should be. On tapWorkQueue.
    bool routeNeedsRefresh(const std::string& bundleID, bool forced);
    // The periodic check, every 2 s on serialQueue.
    void watchdogPass();
    // The automation pass (TonaviRuntimeSmart.cpp), on serialQueue: every 2 s, after every audio
    // snapshot, and soon after a nudge.
    void smartTick();
    // Asks for a pass 0.06 s from now; any thread. Nudges within that window cost one pass.
    void nudgeSmart();
    // The app in front: the last activation seen, else the front window. Any thread.
    std::optional<std::string> frontmostBundleID();
    // The front window's app; the workspace's frontmost app when the window list cannot be had.
    std::optional<std::string> currentFrontmostBundleID();
    // What the automations remember between passes; read on serialQueue.
    const SmartTickState& smartState() const { return smartState_; }
    // The trail of onsets, on serialQueue. `current` is every app playing in the latest snapshot.
    void recordPlaybackOnsets(const IDSet& current);
    void noteSoundOnset(const std::string& id);
    void noteOutputMove(const std::string& uid, const std::string& name);
    std::vector<AudioOnset> currentAudioOnsets() const;

    TonaviStatus buildStatus();
    // The encoded reply to `status`, rebuilt only when something it shows has moved (see statusCache_).
    std::shared_ptr<const std::string> encodedStatusReplyLocked();
    // Something the status shows changed (snapshots, onsets, smart state, the duck).
    void statusInputsChanged() { statusRevision_.fetch_add(1, std::memory_order_release); }
    struct StatusRevisions {
        std::uint64_t runtime = 0, engine = 0, provider = 0;
        bool operator==(const StatusRevisions&) const = default;
    };
    StatusRevisions currentStatusRevisions() const;
    // The cached reply, and whether it still shows everything (`current`). A reply that is not
    // current may still be served while a rebuild runs (`servable`): it is at most
    // `statusCacheServeFor` old and no client's change has been answered since it was built.
    struct StatusLookup {
        std::shared_ptr<const std::string> reply;
        bool current = false, servable = false;
    };
    StatusLookup lookUpStatusReply();
    // One rebuild on serialQueue, however many pollers ask for it meanwhile. Any thread.
    void scheduleStatusRebuild();
    // After a request on serialQueue: its reply's status becomes the cached reply, so a poll that
    // follows the reply sees the change without waiting for a rebuild.
    void publishReplyStatus(const TonaviReply& reply);
    // A client's change answered off serialQueue: polls wait for a status built after it.
    void statusMustShowChangesSoFar();
    Bytes buildDiagnostics();
    std::string displayName(const std::string& bundleID) const;
    std::vector<std::string> currentSystemRouteNames(const std::string& uid) const;
    IDSet audibleAppsNow();
    IDSet standingControl();
    // Discovery, on serialQueue. A probe runs off the queue; its result comes back to it.
    void refreshAudioSnapshotsIfNeeded(bool force);
    // `then` runs on serialQueue once the probe's picture is in (at once when none is needed).
    void refreshHardwareSnapshotIfNeeded(bool force, std::function<void()> then = {});
    void applyAudioSnapshot(AudioSnapshot snapshot);
    void armOutputRunningListeners();
    void publishCreationEligibility();
    // Remembers which installed apps were heard, from the latest snapshot; writes the configuration
    // only when the set grows or a time is refreshed (at most every 15 minutes per app). On serialQueue.
    void rememberAudibleInstalledApps();
    static constexpr double lastHeardRefreshSeconds = 900.0;
    static constexpr double lastHeardForgetSeconds = 2'592'000.0; // 30 days
    static constexpr double runningAppsRecencyWindow = 60.0;
    // Read on serialQueue (tests look through sync).
    const DiscoveryHealth& audioDiscoveryHealth() const { return audioDiscoveryHealth_; }
    const DiscoveryHealth& hardwareDiscoveryHealth() const { return hardwareDiscoveryHealth_; }
    const IDSet& outputEligible() const { return eligibility_.outputEligible(); }
    const IDSet& outputSuppressedUntilPlaybackStops() const {
        return eligibility_.outputSuppressedUntilPlaybackStops();
    }
    std::size_t armedOutputListenerCount() const { return armedOutputListeners_.size(); }

    // Loads a saved scene, on serialQueue: merges it into the configuration, selects its input, then
    // its output through the verified selection and sets that output's volume. `completion` gets the
    // reply on serialQueue once the system shows the output (or the selection ended); a saved device
    // that is not connected fails nothing, the reply's message names it. See docs/scenes.md.
    void loadSceneAsync(const std::string& name, std::function<void(TonaviReply)> completion);

    // A MIDI trigger turned into the ordinary request of its target, on the "tonavi.midi" queue,
    // which owns the pressed state of buttons. Each request hops to serialQueue and its reply is
    // dropped; a scene load goes the asynchronous way. See TonaviRuntimeMIDI.cpp.
    void handleMIDI(const MIDIMapping& mapping, double value);
    DispatchQueue& midiQueue() { return *midiQueue_; }
    const MIDIMapper& midiMapper() const { return *midi_; }

    // Output selection, on serialQueue. `completion` gets the reply, on serialQueue, once the system
    // was seen to report the device or the attempt ended; a newer selection supersedes this one.
    void selectOutputAsync(const std::string& query, bool rememberPreference,
                           std::function<void(TonaviReply)> completion);
    void handleConfirmedDefaultOutput(const std::string& uid);
    void promotePreferredOutput(const std::string& uid);
    bool recordDeviceUse(const std::string& uid, double at);
    TonaviDeviceManager& devices() { return *devices_; }

    const std::string& version() const { return version_; }
    DispatchQueue& serialQueue() { return *serialQueue_; }
    EngagementEngine& engine() { return *engine_; }
    const TonaviConfigStore& store() const { return *store_; }
    // Written on serialQueue when the warm-up ends; readable anywhere.
    bool coreAudioReady() const { return coreAudioReady_.load(); }
    // Probes the warm-up made; readable anywhere.
    int warmUpProbes() const { return warmUpProbes_.load(); }

    // TONAVI_APP_VERSION, else "development".
    static std::string versionFromEnvironment();

  private:
    TonaviReply handleLocked(const TonaviRequest& request);
    TonaviReply success(std::string message = {});
    TonaviReply failure(std::string message);
    TonaviReply notAvailable(std::string_view caseName);

    // App requests.
    TonaviReply mutateApp(const std::string& bundleID, bool continuous,
                          const std::function<void(AppAudioState&)>& mutation);
    AppAudioState freshRecord(const std::string& bundleID) const;
    TonaviReply setAppRedirect(const std::string& bundleID, const std::string& deviceUID);
    TonaviReply setSoloApps(const std::vector<std::string>& bundleIDs);
    TonaviReply setAppSolo(const std::string& bundleID, bool soloed);
    TonaviReply setAppVisible(const std::string& bundleID, bool visible);
    TonaviReply setAppDisplayOrder(const std::vector<std::string>& bundleIDs);
    TonaviReply setStageMode(bool on);
    TonaviReply setManualDuck(bool on);
    IDSet creationEligibilitySet();
    void onRunningOutputEdge(AudioObjectID object);
    // `readAt`: when the probe began, seconds since 1970.
    void finishAudioProbe(std::optional<AudioSnapshot> snapshot, double readAt);
    bool discoveryTrusted(double nowSeconds) const;
    std::optional<std::string> selfHealReason(const std::string& bundleID, const IDSet& connected,
                                              const std::string& defaultUID);
    void removeOutputRunningListeners();
    void withdrawEligibility(const std::string& bundleID);

    // Start-up steps.
    void connectEngineHooks();
    void connectTapProviderHooks();
    void readDefaultOutputAtStart();
    void startWatchdog();
    void installProcessRegistryListener();
    void startSmartTimer();
    void startActiveAppTracking();
    void observeSleepAndWake();
    void warmUpThenEngagePersistedApps();
    void warmUpProbe(int attempt);
    void finishWarmUp();
    void wakeWork();
    void requestReconcile();
    double now() const { return wallClock_(); }

    void reconcileOutputGroups(bool forceRecreate);
    void applyDevicePolicies();
    // Seams of subsystems that are not part of this build. Each does nothing.
    void syncAUSlots();
    // A plug-in slot failed in a worker: it is bypassed, persisted, and the workers are told.
    void autoRevertAUSlotLocked(const std::string& slotID, const std::string& reason);
    void installDeviceListeners();
    void enforceDeviceLimits();

    // Devices and outputs (TonaviRuntimeDevices.cpp).
    std::optional<TonaviReply> handleDeviceRequestLocked(const TonaviRequest& request);
    // Takes the two output selection requests, which reply later; false for any other request.
    bool handleOutputSelectionAsync(const TonaviRequest& request,
                                    std::function<void(TonaviReply)> completion);
    void createDeviceManager();
    OutputGroupManager& outputGroups();
    void handleDevicesChanged();
    void handleReconnectedDevices();
    void handleOutputTopologyChange();
    // Lanes locked to a device that has come back get their taps back on it.
    void restoreLanes(const std::string& reconnectedUID);

    // Bluetooth memories (TonaviRuntimeBluetooth.cpp).
    void applyBluetoothMemory(const std::string& uid);
    // Keeps an output-only headset's microphone from being the default input.
    void enforceBluetoothOutputOnly();
    TonaviReply setBluetoothMemory(const BluetoothDeviceMemory& memory);
    TonaviReply setOutputOnlyMode(const std::string& deviceUID, bool on);
    std::optional<HardwareSnapshot> captureHardwareSnapshot();
    void applyHardwareSnapshot(std::optional<HardwareSnapshot> snapshot);
    // The selection once its query resolves against the snapshot.
    void switchOutput(std::uint64_t generation, const std::string& query, bool rememberPreference,
                      std::function<void(TonaviReply)> completion);
    void completeOutputSelection(std::uint64_t generation, const std::string& name, bool succeeded,
                                 std::function<void(TonaviReply)> completion);
    void settleDefaultRoute(std::uint64_t generation, const std::string& uid);
    std::optional<AudioObjectID> defaultOutputID();
    TonaviReply setOutputVolume(double volume);
    TonaviReply setOutputMuted(bool muted);
    TonaviReply setInputDevice(const std::string& uid);
    TonaviReply setSoundEffectsDevice(const std::string& uid);
    TonaviReply setDeviceHidden(const std::string& uid, bool hidden);
    TonaviReply setDeviceSettings(const DeviceSettings& settings);
    TonaviReply setPreferredOrder(const std::vector<std::string>& uids);
    TonaviReply setDeviceDisplayOrder(const std::vector<std::string>& uids);
    TonaviReply saveGroup(const OutputGroup& group);
    TonaviReply deleteGroup(const std::string& id);

    // Configuration requests, saved scenes and lists (TonaviRuntimeConfigs.cpp).
    std::optional<TonaviReply> handleConfigRequestLocked(const TonaviRequest& request);
    // Takes loadConfig, which replies once the scene's output is seen; false for any other request.
    bool handleSceneLoadAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion);
    // Apply, persist, reply with success and `message`.
    TonaviReply changeConfig(const std::function<void(TonaviConfig&)>& change, std::string message = {});
    TonaviReply importConfiguration(const TonaviConfig& config, const AutoDirectList& autoDirect);
    TonaviReply saveQuickConfig(const std::string& name);
    TonaviReply renameQuickConfig(const std::string& oldName, const std::string& newName);
    // The scene merged and applied, without touching devices; the failure reply when it cannot be.
    std::variant<QuickConfig, TonaviReply> mergeQuickConfigLocked(const std::string& name);
    TonaviReply loadQuickConfigLocked(const std::string& name);

    // The application directory and the app lists (TonaviRuntimeApps.cpp).
    // Takes listInstalledApps, whose scan runs off serialQueue; false for any other request.
    bool handleDirectoryAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion);
    // `apps` with audioCapable forced for every app ever heard, as a list reply.
    TonaviReply installedAppsReply(std::vector<InstalledApp> apps) const;
    TonaviReply runningAudioAppsReply() const;

    // MIDI (TonaviRuntimeMIDI.cpp).
    void startMIDI();
    std::optional<TonaviReply> handleMIDIRequestLocked(const TonaviRequest& request);
    // Saves `list` as the mappings file; only then do the mapper and midiMappings_ take it.
    TonaviReply storeMIDIMappings(std::vector<MIDIMapping> list, const char* failurePrefix);
    // The edge of a button: true only when it goes from released to pressed. On midiQueue_.
    bool midiPressedEdge(const MIDIMapping& mapping, bool pressed);
    // learnMIDIControl: the completion waits on midiQueue_ for the next Control Change, or its time.
    bool handleMIDILearnAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion);
    void midiControlLearned(std::int64_t channel, std::int64_t cc);

    // Smart automation (TonaviRuntimeSmart.cpp).
    TonaviReply setSmartSettings(SmartSettings settings);
    TonaviReply setPreferredMics(const std::vector<std::string>& uids);
    void applyMicFollow(const TonaviConfig& config);
    // The software master of an output without hardware volume, from the configuration, at once
    // rather than at the next smart pass (which computes the same gain).
    void applySoftMasterNow();
    void noteActiveApp(const RunningApplication& app);
    // `shown` are the status's app rows, whose names (the user's, else the running app's) win.
    SmartLiveStatus smartLiveStatus(const TonaviConfig& config, const std::vector<AppLiveStatus>& shown) const;

    // Environment.
    std::string version_;
    std::shared_ptr<TonaviConfigStore> store_;
    std::shared_ptr<AudioHardware> audio_;
    std::shared_ptr<Workspace> workspace_;
    std::shared_ptr<ServiceTapProvider> tapProvider_;
    std::shared_ptr<DispatchClock> clock_;
    std::function<double()> wallClock_;
    // Closures handed out hold this weakly, through weakSelf_, which is never written after
    // construction; the anchor dies first in the destructor.
    std::shared_ptr<TonaviRuntime*> anchor_;
    const std::weak_ptr<TonaviRuntime*> weakSelf_;

    std::unique_ptr<RecencyTracker> recency_;
    std::unique_ptr<EngagementEngine> engine_;
    std::vector<MIDIMapping> midiMappings_; // serialQueue; the mapper holds a copy

    // MIDI: triggers arrive on midiQueue_, which alone touches midiPressed_; the mapper posts there
    // from the MIDI thread and never waits.
    std::unique_ptr<DispatchQueue> midiQueue_; // "tonavi.midi"
    std::map<std::string, bool> midiPressed_;
    // Waiting learnMIDIControl requests by number, on midiQueue_; the mapper learns while any wait.
    std::map<std::uint64_t, std::function<void(TonaviReply)>> midiLearners_;
    std::uint64_t nextMIDILearner_ = 0;
    std::shared_ptr<MIDISystem> midiSystem_;
    std::unique_ptr<MIDIMapper> midi_;
    std::unique_ptr<AUCatalogue> auCatalogue_;

    std::unique_ptr<DispatchQueue> serialQueue_;           // "tonavi.runtime"
    std::unique_ptr<DispatchQueue> activityListenerQueue_; // "tonavi.activity-events"
    std::unique_ptr<DispatchQueue> tapWorkQueue_;          // "tonavi.tap-lifecycle"
    std::unique_ptr<DispatchQueue> warmUpQueue_;           // "tonavi.warm-up", the probes' waits
    std::unique_ptr<DispatchQueue> discoveryQueue_;        // "tonavi.discovery", process and hardware probes

    std::mutex tapRefreshStateLock_; // leaf: guards the next two fields
    CoalescedRefreshState tapRefreshState_;
    std::set<std::string> forcedTapRefreshes_;
    TapRecoveryBackoff tapRecoveryBackoff_{2.0, 30.0}; // paces self-heal; serialQueue

    std::atomic<bool> coreAudioReady_{false};
    std::atomic<int> warmUpProbes_{0};
    std::string lastHandledDefaultOutputUID_;
    std::unique_ptr<DispatchTimer> watchdogTimer_;
    WorkItemRef pendingControlSave_;
    std::unique_ptr<DispatchTimer> smartTimer_;

    bool manualDuckOn_ = false;

    // Smart automation, all of serialQueue but the active app, which the workspace's activation
    // events write under its own leaf lock.
    SmartTickState smartState_;
    bool smartNudgeScheduled_ = false;
    AudioOnsetTrail onsetTrail_;
    std::mutex activeAppLock_; // leaf: guards activeAppBundleID_
    std::optional<std::string> activeAppBundleID_;

    // Discovery caches, filled by the probes.
    bool audioSnapshotProbeInFlight_ = false;
    bool audioSnapshotRefreshRequested_ = false;
    double audioSnapshotAt_ = 0; // seconds since 1970; 0: never
    DiscoveryHealth audioDiscoveryHealth_;
    std::vector<ProcessEntry> audioProcessSnapshot_;
    std::map<std::string, Activity, std::less<>> resolvedAudioSnapshot_;
    std::map<std::string, TapProcessIdentity, std::less<>> audioGroups_;
    std::map<AudioObjectID, std::string> audioOwnersByObject_;
    // Process objects that carry a running-output listener, with the block that removes it.
    std::map<AudioObjectID, AudioObjectPropertyListenerBlock> armedOutputListeners_;
    OutputEligibility eligibility_;
    HardwareSnapshot hardwareSnapshot_;
    DiscoveryHealth hardwareDiscoveryHealth_;

    // The last encoded status reply and the revisions it was built from. It is current until the
    // runtime's, the engine's or the provider's revision moves, or until it is `statusCacheMaxAge`
    // seconds old (ages, recent-signal flags and in-process meters change with time alone). A poller
    // that finds it no longer current gets it anyway and one rebuild is queued, as long as it is
    // under `statusCacheServeFor` old and is not older than a client's answered change: what moved
    // meanwhile came from the machine, and the poll is as good as one that came a moment earlier.
    // Replies to requests handled on serialQueue become the cached reply themselves; changes
    // answered elsewhere raise `statusRequiredRevision_`, which makes the next poll wait.
    // Built on serialQueue; "statusCacheLock" is a leaf lock held only to copy or store the record.
    static constexpr double statusCacheMaxAge = 0.5;
    static constexpr double statusCacheServeFor = 1.0;
    struct StatusCache {
        StatusRevisions built;
        double builtAt = 0;
        std::shared_ptr<const std::string> reply;
    };
    mutable std::mutex statusCacheLock_;
    StatusCache statusCache_;
    std::atomic<std::uint64_t> statusRevision_{0};         // moved and read on any thread
    std::atomic<std::uint64_t> statusRequiredRevision_{0}; // raised by answered changes, any thread
    std::atomic<bool> statusRebuildQueued_{false};
    // The revisions and time the last reply's status was built at, on serialQueue; set by
    // success() and failure(), taken by publishReplyStatus.
    std::optional<std::pair<StatusRevisions, double>> replyStatusStamp_;

    AudioObjectPropertyListenerBlock processRegistryListener_;

    // Devices and outputs, all of serialQueue. The manager lives while serialQueue does.
    std::shared_ptr<TonaviDeviceManager> devices_;
    BluetoothInfo::ProfilerRead bluetoothProfiler_;
    std::shared_ptr<BluetoothInfo> bluetoothInfo_; // its own lock; read by the hardware probe
    std::unique_ptr<OutputGroupManager> outputGroups_;  // made on first use
    std::unique_ptr<DispatchQueue> hardwareProbeQueue_; // "tonavi.hardware-probe"
    DispatchTime hardwareSnapshotAt_ = DispatchTime::min();
    std::uint64_t hardwareSnapshotGeneration_ = 0;
    bool hardwareProbeInFlight_ = false;
    std::uint64_t outputSelectionGeneration_ = 0;
    bool manualOutputIntentPending_ = false;
    OutputSelectionOrder outputSelectionOrder_;
    std::uint64_t defaultOutputGeneration_ = 0;
    std::map<std::string, double> lastRecordedDeviceUse_;
    std::set<std::string> lastConnectedUIDs_;
    OutputTopologyTracker outputTopology_;
    std::vector<Workspace::ObserverToken> workspaceObservers_;

    // Its own lock and queue; destroyed before the queues above, waiting for a scan that runs.
    std::unique_ptr<AppDirectory> appDirectory_;
};

} // namespace tonavi
