// Construction, the warm-up, timers, sleep and wake, tap work and persistence of TonaviRuntime.

#include "service/TonaviRuntime.hpp"
#include "service/RuntimeCallbacks.hpp"

#include "base/Log.hpp"
#include "service/UnavailableTapProvider.hpp"

#include <cassert>
#include <chrono>
#include <cstdlib>

namespace tonavi {

namespace {

double systemSecondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Runs `body` with the runtime if it still exists. Every closure handed to another object or queue
// goes through this, so it holds the runtime weakly.
} // namespace

std::string TonaviRuntime::versionFromEnvironment() {
    const char* v = std::getenv("TONAVI_APP_VERSION");
    return v ? std::string(v) : std::string("development");
}

TonaviRuntime::TonaviRuntime(Environment environment)
    : version_(std::move(environment.version)), store_(std::move(environment.store)),
      audio_(std::move(environment.audio)), workspace_(std::move(environment.workspace)),
      tapProvider_(std::move(environment.tapProvider)), clock_(std::move(environment.clock)),
      wallClock_(std::move(environment.wallClock)), anchor_(std::make_shared<TonaviRuntime*>(this)),
      weakSelf_(anchor_), midiSystem_(std::move(environment.midi)),
      bluetoothProfiler_(std::move(environment.bluetoothProfiler)) {
    assert(store_ && audio_ && workspace_);
    if (!clock_)
        clock_ = DispatchClock::system();
    if (!wallClock_)
        wallClock_ = systemSecondsSince1970;

    // 1. The tap provider. Without an injected one the service takes no taps, and says so.
    if (!tapProvider_)
        tapProvider_ = std::make_shared<UnavailableTapProvider>("no tap provider in this build");

    // 2. The queues.
    serialQueue_ = std::make_unique<DispatchQueue>("tonavi.runtime", clock_);
    activityListenerQueue_ = std::make_unique<DispatchQueue>("tonavi.activity-events", clock_);
    tapWorkQueue_ = std::make_unique<DispatchQueue>("tonavi.tap-lifecycle", clock_);
    warmUpQueue_ = std::make_unique<DispatchQueue>("tonavi.warm-up", clock_);
    discoveryQueue_ = std::make_unique<DispatchQueue>("tonavi.discovery", clock_);
    midiQueue_ = std::make_unique<DispatchQueue>("tonavi.midi", clock_);
    // The directory's first scan starts now on its own queue: start-up does not wait for it.
    appDirectory_ = std::make_unique<AppDirectory>(std::move(environment.installedApplications), wallClock_);
    appDirectory_->presentationApps();

    // 3. The device manager, on serialQueue as its state queue.
    createDeviceManager();

    // 4. A service never fails to start for want of a configuration; the store has already tried
    //    to recover whatever it could.
    TonaviConfig loaded;
    try {
        loaded = store_->load();
    } catch (const std::exception& e) {
        Log::info(std::string("tonavi: configuration could not be loaded (") + e.what() +
                  "); starting with first-run defaults");
        loaded = TonaviConfig::firstRunDefaults(store_->platform);
    }

    // 5. Recency.
    recency_ = std::make_unique<RecencyTracker>(loaded.audibleAppLastHeardAt, wallClock_);

    // 6. The auto-direct list and the MIDI mappings.
    const AutoDirectList autoDirect = store_->loadAutoDirectList();
    try {
        midiMappings_ = store_->loadMIDIMappings();
    } catch (const std::exception&) {
        midiMappings_.clear();
    }

    // 7. The engine does not act until told to.
    engine_ =
        std::make_unique<EngagementEngine>(loaded, tapProvider_, autoDirect, 48000.0, false, wallClock_);

    // 8, 9. Scheduling hooks; no tap may be created until audio was observed or a control asks.
    connectEngineHooks();
    engine_->setCreationEligibility(IDSet{});

    // 10. The tap provider's hooks.
    connectTapProviderHooks();

    // 12. The MIDI mapper gets the mappings; its triggers become requests.
    midi_ = std::make_unique<MIDIMapper>(midiSystem_, *midiQueue_);
    midi_->setMappings(midiMappings_);
    midi_->setOnTrigger([weak = std::weak_ptr<TonaviRuntime*>(weakSelf_)](const MIDIMapping& mapping, double value) {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.handleMIDI(mapping, value); });
    });
    midi_->setOnControlChange([weak = std::weak_ptr<TonaviRuntime*>(weakSelf_)](std::int64_t channel, std::int64_t cc) {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.midiControlLearned(channel, cc); });
    });

    // 13. Plug-ins render only in the workers, so the service's engine has no hosted-effect hooks; 14 is
    //     the provider's slot failure hook (connectTapProviderHooks). 11 joins with its subsystem.
    auCatalogue_ = std::make_unique<AUCatalogue>(environment.pluginHost ? environment.pluginHost : PluginHost::shared(),
                                                 wallClock_);

    // 15.
    syncAUSlots();
    applyDevicePolicies();

    // 16.
    readDefaultOutputAtStart();

    // 17.
    if (engine_->stageMode())
        Log::info("tonavi: stage mode restored from persisted state");

    // 18. The engine sanitises what it is given; a repaired configuration is written back.
    if (!(engine_->config() == loaded)) {
        persist();
        Log::info("tonavi: repaired protected-host entries in persisted config");
    }

    // 19-24.
    startMIDI();
    startWatchdog();
    installProcessRegistryListener();
    startActiveAppTracking();
    startSmartTimer();
    observeSleepAndWake();

    // 25. Returns at once.
    warmUpThenEngagePersistedApps();

    // 26-28. Output topology, Bluetooth output-only and the device listeners, last, so that no
    //        device hook runs on a half-built runtime.
    enforceBluetoothOutputOnly();
    installDeviceListeners();
}

TonaviRuntime::~TonaviRuntime() {
    anchor_.reset();
    // First, so that the MIDI thread is done with us; triggers it posted find the anchor gone.
    midi_.reset();
    if (watchdogTimer_)
        watchdogTimer_->cancel();
    if (smartTimer_)
        smartTimer_->cancel();
    for (auto token : workspaceObservers_)
        workspace_->removeObserver(token);
    if (processRegistryListener_)
        audio_->removePropertyListener(kAudioObjectSystemObject,
                                       globalAddress(kAudioHardwarePropertyProcessObjectList), *serialQueue_,
                                       processRegistryListener_);
    // No listener may fire into a queue that is going away.
    serialQueue_->sync([this] { removeOutputRunningListeners(); });
    // Only items running now still hold the anchor, and they may queue work on any queue. Each queue
    // is drained while all of them exist; whatever is queued after that finds the anchor gone.
    for (auto* queue : {serialQueue_.get(), hardwareProbeQueue_.get(), discoveryQueue_.get(), warmUpQueue_.get(),
                        tapWorkQueue_.get(), activityListenerQueue_.get(), midiQueue_.get()})
        queue->sync([] {});
    // An item of a later queue that still held the anchor may have posted back to serialQueue after
    // that queue was drained, and that item holds the anchor in turn: it must end before the queues go.
    serialQueue_->sync([] {});
    hardwareProbeQueue_.reset();
    discoveryQueue_.reset();
    warmUpQueue_.reset();
    tapWorkQueue_.reset();
    activityListenerQueue_.reset();
    midiQueue_.reset();
    // The device manager unregisters against serialQueue, so it goes while the queue still exists.
    outputGroups_.reset();
    devices_.reset();
    serialQueue_.reset();
}

// MARK: Start-up steps

void TonaviRuntime::connectEngineHooks() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    engine_->setReconciliationScheduler(
        [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.requestReconcile(); }); });
    engine_->setRefreshScheduler([weak](const std::string& bundleID) {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.scheduleTapRefresh(bundleID, false); });
    });
}

void TonaviRuntime::connectTapProviderHooks() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    ServiceTapProvider::Hooks hooks;
    hooks.render = [weak](const std::string& bundleID, std::span<float> buffer, int frames,
                          std::uint64_t hostTime) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.recency_->noteHeard(bundleID);
            const double hostSeconds = static_cast<double>(rt.audio_->convertHostTimeToNanos(hostTime)) / 1e9;
            rt.engine_->advanceDucking(frames, hostSeconds);
            rt.engine_->render(bundleID, buffer);
        });
    };
    hooks.workerState = [weak](const std::string& bundleID) {
        std::optional<TapWorkerState> state;
        withRuntime(weak, [&](TonaviRuntime& rt) { state = rt.engine_->tapWorkerState(bundleID); });
        return state;
    };
    hooks.heard = [weak](const std::string& bundleID) {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.recency_->noteHeard(bundleID); });
    };
    hooks.route = [weak](const std::string& bundleID) {
        std::string route;
        withRuntime(weak, [&](TonaviRuntime& rt) { route = rt.engine_->routeFor(bundleID); });
        return route;
    };
    hooks.tapFailed = [weak](const std::string& bundleID, const std::string& reason,
                             const TapHandlePtr& handle) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.serialQueue_->async([weak, bundleID, reason, handle] {
                withRuntime(weak, [&](TonaviRuntime& rt) {
                    rt.engine_->releaseTap(bundleID, reason, handle);
                    rt.persist();
                    rt.engine_->requestReconcile();
                });
            });
        });
    };
    hooks.auSlotFailed = [weak](const std::string& slotID, const std::string& reason) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.serialQueue_->async([weak, slotID, reason] {
                withRuntime(weak, [&](TonaviRuntime& rt) { rt.autoRevertAUSlotLocked(slotID, reason); });
            });
        });
    };
    tapProvider_->setHooks(std::move(hooks));
}

void TonaviRuntime::autoRevertAUSlotLocked(const std::string& slotID, const std::string& reason) {
    assert(serialQueue_->isCurrent());
    const TonaviConfig& config = engine_->config();
    std::optional<std::string> owner;
    bool alreadyBypassed = false;
    const auto look = [&](const std::vector<kavore::EffectSlot>& slots, const std::string& name) {
        for (const auto& slot : slots)
            if (!owner && slot.id == slotID)
                owner = name, alreadyBypassed = slot.bypassed;
    };
    for (const auto& app : config.apps)
        look(app.chain.slots, app.displayName);
    look(config.systemRows.systemChain.slots, "system output");
    look(config.globalListening.audioUnitSlots, "global listening");
    // A global slot runs in every tapped app's worker: the first report bypasses it, and the others
    // that were already on their way are not new.
    if (alreadyBypassed)
        return;
    Log::info("tonavi: AU failure on " + owner.value_or("system output") + ": " + reason);
    engine_->autoRevertAUSlot(slotID, reason);
    persist();
    syncAUSlots();
}

void TonaviRuntime::readDefaultOutputAtStart() {
    AudioObjectID device = kAudioObjectUnknown;
    if (audio_->get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                    device) != noErr ||
        device == kAudioObjectUnknown)
        return;
    std::string uid;
    if (audio_->get(device, globalAddress(kAudioDevicePropertyDeviceUID), uid) != noErr || uid.empty())
        return;
    engine_->defaultOutputChanged(uid, false);
    // Only logged: the first confirmation of this output still does the confirmed-output work (the
    // session's output, the Bluetooth memory, the lanes), which nothing has done for it yet.
    Log::info("tonavi: confirmed system output " + lastHandledDefaultOutputUID_ + " -> " + uid);
}

void TonaviRuntime::startWatchdog() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    watchdogTimer_ = std::make_unique<DispatchTimer>(
        *serialQueue_, seconds(watchdogFirstSeconds), seconds(watchdogIntervalSeconds),
        [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.watchdogPass(); }); });
    watchdogTimer_->resume();
}

void TonaviRuntime::installProcessRegistryListener() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    processRegistryListener_ =
        std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
            [weak](std::span<const AudioObjectPropertyAddress>) {
                withRuntime(weak, [](TonaviRuntime& rt) {
                    // While warming, discovery waits for the warm-up's reconcile.
                    if (!rt.coreAudioReady_.load())
                        return;
                    rt.armOutputRunningListeners();
                    rt.refreshAudioSnapshotsIfNeeded(true);
                    rt.nudgeSmart();
                });
            });
    if (audio_->addPropertyListener(kAudioObjectSystemObject,
                                    globalAddress(kAudioHardwarePropertyProcessObjectList), *serialQueue_,
                                    processRegistryListener_) != noErr) {
        Log::info("tonavi: process registry listener could not be installed");
        processRegistryListener_.reset();
    }
}

void TonaviRuntime::observeSleepAndWake() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    // Runs on the posting thread and touches only the engine's suspended flag.
    workspaceObservers_.push_back(workspace_->addWillSleepObserver(
        [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.engine_->setHardwareSuspended(true); }); }));
    workspaceObservers_.push_back(workspace_->addDidWakeObserver([weak] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.serialQueue_->after(seconds(wakeDelaySeconds),
                                   [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.wakeWork(); }); });
        });
    }));
}

void TonaviRuntime::wakeWork() {
    assert(serialQueue_->isCurrent());
    // A wake before the warm-up has finished does nothing: a sleep seen meanwhile keeps the engine
    // suspended, without taps, until the next wake.
    if (!coreAudioReady_.load())
        return;
    tapProvider_->resetCreationBackoff();
    engine_->setHardwareSuspended(false);
    reconcileOutputGroups(true);
    for (const auto& id : engine_->engagedBundleIDs())
        scheduleTapRefresh(id, true);
    Log::info("tonavi: rebuilt engaged taps after wake");
}

// MARK: Warm-up

// Core Audio can be slow right after login; no tap is taken before it answers quickly. The probes
// run on a queue of their own, and the waits between them are delayed work on that queue's clock.
void TonaviRuntime::warmUpThenEngagePersistedApps() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    warmUpQueue_->async([weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.warmUpProbe(1); }); });
}

void TonaviRuntime::warmUpProbe(int attempt) {
    // How fast the hardware answers is real time, whatever clock drives the waits.
    const auto start = std::chrono::steady_clock::now();
    AudioObjectID device = kAudioObjectUnknown;
    if (audio_->get(kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                    device) == noErr &&
        device != kAudioObjectUnknown) {
        std::string uid;
        (void)audio_->get(device, globalAddress(kAudioDevicePropertyDeviceUID), uid);
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    auto finish = [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.finishWarmUp(); }); };
    if (elapsed < warmUpFastProbeSeconds) {
        warmUpQueue_->after(seconds(warmUpRetrySeconds), finish);
    } else if (attempt >= warmUpMaxProbes) {
        // The last slow probe still waits its half second, then the half second everyone waits.
        warmUpQueue_->after(seconds(2 * warmUpRetrySeconds), finish);
    } else {
        warmUpQueue_->after(seconds(warmUpRetrySeconds), [weak, attempt] {
            withRuntime(weak, [&](TonaviRuntime& rt) { rt.warmUpProbe(attempt + 1); });
        });
    }
    // Counted once the next step is queued, so a test that sees the count can move the clock.
    warmUpProbes_.fetch_add(1);
}

void TonaviRuntime::finishWarmUp() {
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak] {
        withRuntime(weak, [](TonaviRuntime& rt) {
            rt.coreAudioReady_.store(true);
            rt.reconcileOutputGroups(false);
            // This is the point at which persisted apps get their taps.
            rt.engine_->requestReconcile();
        });
    });
}

// MARK: Tap work

void TonaviRuntime::requestReconcile() {
    // Reconcile passes wait for the warm-up: until the hardware answers quickly no tap is taken,
    // and the warm-up's own reconcile picks up everything asked for meanwhile.
    if (!coreAudioReady_.load())
        return;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    scheduleTapWork(reconcileKey,
                    [weak] { withRuntime(weak, [](TonaviRuntime& rt) { rt.engine_->reconcile(); }); });
}

void TonaviRuntime::scheduleTapWork(const std::string& key, std::function<void()> work) {
    bool start = false;
    {
        std::lock_guard guard(tapRefreshStateLock_);
        start = tapRefreshState_.request(key);
    }
    if (!start)
        return; // the active pass runs again, since the generation moved
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    auto pass = std::make_shared<std::function<void()>>();
    *pass = [weak, key, work = std::move(work), passWeak = std::weak_ptr<std::function<void()>>(pass)] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            std::uint64_t generation = 0;
            {
                std::lock_guard guard(rt.tapRefreshStateLock_);
                generation = rt.tapRefreshState_.generationForNextPass(key);
            }
            work();
            bool again = false;
            {
                std::lock_guard guard(rt.tapRefreshStateLock_);
                again = rt.tapRefreshState_.finishPass(key, generation);
            }
            if (again)
                if (auto next = passWeak.lock())
                    rt.tapWorkQueue_->async([next] { (*next)(); });
        });
    };
    // The queued closure owns the pass; the pass refers to itself only weakly.
    tapWorkQueue_->async([pass] { (*pass)(); });
}

void TonaviRuntime::scheduleTapRefresh(const std::string& bundleID, bool force) {
    if (force) {
        std::lock_guard guard(tapRefreshStateLock_);
        forcedTapRefreshes_.insert(bundleID);
    }
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    scheduleTapWork(bundleID, [weak, bundleID] {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            bool forced = false;
            {
                std::lock_guard guard(rt.tapRefreshStateLock_);
                forced = rt.forcedTapRefreshes_.erase(bundleID) > 0;
            }
            if (rt.routeNeedsRefresh(bundleID, forced))
                rt.engine_->performTapRefresh(bundleID);
        });
    });
}

// MARK: Persistence

void TonaviRuntime::persist() {
    // An immediate save makes the deferred one pointless.
    if (pendingControlSave_) {
        pendingControlSave_->cancel();
        pendingControlSave_.reset();
    }
    tapProvider_->syncStates();
    try {
        saveConfigToDisk(engine_->config());
    } catch (const std::exception&) {
        // The live state stays in memory; the next save tries again.
    }
    syncAUSlots();
}

void TonaviRuntime::persistContinuousControl() {
    // The audio reacts at once, whatever happens to the save.
    tapProvider_->syncStates();
    if (pendingControlSave_)
        pendingControlSave_->cancel();
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    pendingControlSave_ = std::make_shared<WorkItem>([weak] {
        withRuntime(weak, [](TonaviRuntime& rt) {
            rt.pendingControlSave_.reset();
            try {
                rt.saveConfigToDisk(rt.engine_->config());
            } catch (const std::exception&) {
            }
        });
    });
    serialQueue_->after(seconds(deferredSaveSeconds), pendingControlSave_);
}

void TonaviRuntime::saveConfigToDisk(const TonaviConfig& config) {
    // The user interface writes ui, startAtLogin and superVolumeKeys to the same file; the store
    // takes those from disk under its exclusive lock.
    store_->saveKeepingAppOwnedSettings(config);
}

void TonaviRuntime::releaseTapsThenStop() {
    assert(serialQueue_->isCurrent());
    if (pendingControlSave_) {
        pendingControlSave_->cancel();
        pendingControlSave_.reset();
    }
    // First, so that a drag in its last quarter second survives termination.
    try {
        saveConfigToDisk(engine_->config());
    } catch (const std::exception&) {
    }
    engine_->releaseAllTapsForShutdown();
}

// MARK: Plug-in slots

// The slot registries live in the workers, one per tapped app, and sync from the state each worker
// receives: pushing the states is the service's whole share.
void TonaviRuntime::syncAUSlots() { tapProvider_->syncStates(); }

} // namespace tonavi
