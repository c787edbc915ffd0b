// State, configuration and the reconcile pass of the engine.

#include "core/engine/EngagementEngine.hpp"

#include "audio/chain/RenderChain.hpp"
#include "audio/effects/SteadyVolume.hpp"
#include "audio/listening/GlobalListeningProcessor.hpp"
#include "core/engine/GlobalListeningPolicy.hpp"
#include "core/engine/TonaviTapSafety.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace tonavi {

namespace {

constexpr double unityTolerance = 0.0001;

bool contains(const std::vector<std::string>& list, std::string_view id) {
    return std::find(list.begin(), list.end(), id) != list.end();
}

bool mutedNow(const AppAudioState& app, double now) {
    return app.muted || (app.timedMuteUntil && now < *app.timedMuteUntil);
}

// Whether releasing this row would make a muted app audible.
bool rowHoldsMute(const AppAudioState& app, double now) {
    if (app.directLocked)
        return app.muteWhileBypassed;
    return mutedNow(app, now);
}

} // namespace

// What one reconcile pass decides from; taken under the lock in one hold.
struct EngagementEngine::Snapshot {
    std::vector<AppAudioState> apps;
    ByApp<AppAudioState> ephemeralApps;
    IDSet forceEngaged;
    AutoDirectList autoDirect;
    std::optional<IDSet> creationEligibility;
    std::optional<IDSet> soloAppIDs;
    std::vector<std::string> hiddenAppIDs;
    SmartSettings smart;
    kavore::GlobalListeningSettings globalListening;
};

EngagementEngine::EngagementEngine(const TonaviConfig& config, std::shared_ptr<TapProviding> taps,
                                   AutoDirectList autoDirect, double sampleRate, bool autoReconcile,
                                   Clock clock)
    : config_(sanitized(config, autoDirect)), taps_(std::move(taps)), sampleRate_(sampleRate),
      autoDirect_(std::move(autoDirect)), stageFlag_(config.stageModePersisted), clock_(std::move(clock)),
      anchor_(std::make_shared<EngagementEngine*>(this)),
      smootherCoefficient_(std::exp(-1.0 / (sampleRate * 0.008))) {
    recomputePluginSlotIDsLocked();
    retired_.reserve(retiredCapacity);
    ducker_ = std::make_unique<Ducker>(config_.duckRules, sampleRate_);
    if (autoReconcile)
        reconcile();
}

EngagementEngine::~EngagementEngine() = default;

// ---- Pure rules ----

bool EngagementEngine::isEngaged(const AppAudioState& app) {
    if (app.directLocked)
        return false;
    if (app.controlAttached)
        return true;
    if (std::abs(app.volume - 1.0) > unityTolerance)
        return true;
    if (app.muted)
        return true;
    if (!app.chain.isNeutral())
        return true;
    if (!app.redirectUID.empty())
        return true;
    if (app.timedMuteUntil)
        return true;
    if (app.steadyVolume)
        return true;
    return std::any_of(app.volumePerDevice.begin(), app.volumePerDevice.end(),
                       [](const auto& entry) { return std::abs(entry.second - 1.0) > unityTolerance; });
}

TonaviConfig EngagementEngine::sanitized(const TonaviConfig& config, const AutoDirectList&) {
    TonaviConfig out = config;
    std::erase_if(out.apps, [](const AppAudioState& app) { return !TonaviTapSafety::mayCapture(app.id); });
    for (auto& rule : out.duckRules)
        std::erase_if(rule.duckedBundleIDs,
                      [](const std::string& id) { return !TonaviTapSafety::mayCapture(id); });
    const auto& gl = config.globalListening;
    out.globalListening =
        kavore::GlobalListeningSettings(gl.enabled, gl.equalizer, gl.balancer, gl.audioUnitSlots);
    return out;
}

bool EngagementEngine::isProtected(std::string_view bundleID) {
    return !TonaviTapSafety::mayCapture(bundleID);
}

AppAudioState EngagementEngine::neutralRow(const std::string& bundleID, const std::string& displayName) {
    AppAudioState row(bundleID);
    row.displayName = displayName;
    row.volume = 1.0;
    row.muted = false;
    row.chain = kavore::ChainSettings::empty();
    row.redirectUID.clear();
    row.metersEnabled = true;
    row.showInMenuBar = false;
    return row;
}

void EngagementEngine::setInputChannels(int channels) {
    std::lock_guard guard(lock_);
    inputChannels_ = std::max(channels, 1);
}

double EngagementEngine::now() const {
    if (clock_)
        return clock_();
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

// ---- Lock-held helpers ----

const AppAudioState* EngagementEngine::configRowLocked(std::string_view bundleID) const {
    // The last row of an ID is the one that counts, as in reconcile, where later rows replace
    // earlier ones.
    for (auto it = config_.apps.rbegin(); it != config_.apps.rend(); ++it)
        if (it->id == bundleID)
            return &*it;
    return nullptr;
}

void EngagementEngine::upsertRowLocked(const AppAudioState& state) {
    changed();
    // Every row of the ID is replaced, so a configuration holding duplicates cannot keep a stale one.
    bool found = false;
    for (auto& row : config_.apps) {
        if (row.id == state.id) {
            row = state;
            found = true;
        }
    }
    if (!found)
        config_.apps.push_back(state);
}

const AppAudioState* EngagementEngine::managedAppLocked(std::string_view bundleID) const {
    if (const AppAudioState* row = configRowLocked(bundleID))
        return row;
    auto it = ephemeralApps_.find(bundleID);
    return it == ephemeralApps_.end() ? nullptr : &it->second;
}

bool EngagementEngine::isHiddenLocked(std::string_view bundleID) const {
    return contains(config_.hiddenAppIDs, bundleID);
}

bool EngagementEngine::isSoloSuppressedLocked(std::string_view bundleID) const {
    return soloAppIDs_ && !soloAppIDs_->contains(bundleID);
}

bool EngagementEngine::wantsTapLocked(std::string_view bundleID) const {
    if (stageFlag_.load() || shutdownFlag_.load() || hardwareSuspended_.load())
        return false;
    if (!TonaviTapSafety::mayCapture(bundleID))
        return false;
    if (isHiddenLocked(bundleID))
        return false;
    const AppAudioState* app = managedAppLocked(bundleID);
    if (!app)
        return false;
    // Eligibility comes before everything the row says: a muted app that never played gets no tap.
    if (creationEligibility_ && !creationEligibility_->contains(bundleID))
        return false;
    if (rowHoldsMute(*app, now()))
        return true;
    if (isSoloSuppressedLocked(bundleID))
        return true;
    if (app->directLocked)
        return false;
    if (isEngaged(*app))
        return true;
    return forceEngaged_.contains(bundleID);
}

bool EngagementEngine::holdsMuteLocked(std::string_view bundleID) const {
    const AppAudioState* app = managedAppLocked(bundleID);
    if (!app || !TonaviTapSafety::mayCapture(bundleID))
        return false;
    return rowHoldsMute(*app, now());
}

double EngagementEngine::effectiveVolumeLocked(const AppAudioState& app) const {
    const std::string& device = app.redirectUID.empty() ? currentDefaultOutputUID_ : app.redirectUID;
    auto it = app.volumePerDevice.find(device);
    return it == app.volumePerDevice.end() ? app.volume : it->second;
}

void EngagementEngine::recomputePluginSlotIDsLocked() {
    auto ids = std::make_shared<std::vector<std::string>>();
    for (const auto& slot : config_.globalListening.activeAudioUnitSlots())
        ids->push_back(slot.id);
    globalPluginSlotIDs_ = std::move(ids);
}

TapHandlePtr EngagementEngine::removeTapEntriesLocked(std::string_view bundleID, bool includingLimiter) {
    changed();
    TapHandlePtr handle;
    if (auto it = tapHandles_.find(bundleID); it != tapHandles_.end()) {
        handle = std::move(it->second);
        tapHandles_.erase(it);
    }
    if (auto it = chains_.find(bundleID); it != chains_.end())
        chains_.erase(it);
    if (auto it = globalListeningProcs_.find(bundleID); it != globalListeningProcs_.end())
        globalListeningProcs_.erase(it);
    if (auto it = smoothedGain_.find(bundleID); it != smoothedGain_.end())
        smoothedGain_.erase(it);
    if (auto it = steadyProcs_.find(bundleID); it != steadyProcs_.end())
        steadyProcs_.erase(it);
    if (includingLimiter) {
        if (auto it = limiterGR_.find(bundleID); it != limiterGR_.end())
            limiterGR_.erase(it);
    }
    return handle;
}

void EngagementEngine::storeTapLocked(const std::string& bundleID, TapHandlePtr handle,
                                      std::shared_ptr<kavore::RenderChain> chain) {
    changed();
    tapHandles_[bundleID] = std::move(handle);
    chains_[bundleID] = std::move(chain);
    smoothedGain_.try_emplace(bundleID);
    limiterGR_.try_emplace(bundleID); // keeps a carried value if one survived a release
}

std::shared_ptr<kavore::RenderChain>
EngagementEngine::makeChain(const kavore::ChainSettings& settings) const {
    auto chain = std::make_shared<kavore::RenderChain>();
    std::weak_ptr<EngagementEngine*> weak = anchor_;
    chain->setExternalAURender([weak](const std::string& slotID, std::span<float> buffer) {
        if (auto anchor = weak.lock()) {
            const auto& bridge = (*anchor)->externalAURender_;
            if (bridge)
                bridge(slotID, buffer);
        }
    });
    chain->setExternalAULatencySamples([weak](const std::string& slotID) -> int {
        if (auto anchor = weak.lock()) {
            const auto& bridge = (*anchor)->externalAULatency_;
            if (bridge)
                return bridge(slotID);
        }
        return 0;
    });
    chain->configure(settings, sampleRate_);
    return chain;
}

// ---- Configuration ----

TonaviConfig EngagementEngine::config() const {
    std::lock_guard guard(lock_);
    return config_;
}

std::optional<AppAudioState> EngagementEngine::managedApp(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    const AppAudioState* row = managedAppLocked(bundleID);
    if (!row)
        return std::nullopt;
    return *row;
}

void EngagementEngine::requestReconcile() {
    if (reconciliationScheduler_)
        reconciliationScheduler_();
    else
        reconcile();
}

void EngagementEngine::install(const TonaviConfig& config, const AutoDirectList* autoDirect) {
    TonaviConfig next = sanitized(config, autoDirect_);
    // A configuration never changes stage mode; only setStageMode does.
    next.stageModePersisted = stageFlag_.load();
    // Built before the hold so the lock covers only the swap.
    std::unique_ptr<Ducker> replacement;
    {
        std::lock_guard guard(lock_);
        changed();
        if (next.duckRules == config_.duckRules) {
            config_ = std::move(next);
        } else {
            config_ = std::move(next);
            replacement = std::make_unique<Ducker>(config_.duckRules, sampleRate_);
            std::swap(ducker_, replacement);
        }
        if (autoDirect)
            autoDirect_ = *autoDirect;
        recomputePluginSlotIDsLocked();
    }
    // The old ducker, if any, is destroyed here, outside the lock.
    freeRetired();
}

void EngagementEngine::freeRetired() {
    std::vector<std::shared_ptr<const void>> freed;
    freed.reserve(retiredCapacity);
    {
        std::lock_guard guard(lock_);
        if (retired_.empty())
            return;
        std::swap(freed, retired_);
    }
    // Destroyed here, on the control path and outside the lock.
}

void EngagementEngine::apply(const TonaviConfig& config) {
    install(config, nullptr);
    requestReconcile();
}

void EngagementEngine::setConfigWithoutReconcile(const TonaviConfig& config) {
    install(config, nullptr);
}

void EngagementEngine::applyImportedConfig(const TonaviConfig& config, const AutoDirectList& autoDirect) {
    install(config, &autoDirect);
    requestReconcile();
}

void EngagementEngine::mutateConfig(const std::function<void(TonaviConfig&)>& mutation) {
    TonaviConfig copy = this->config();
    mutation(copy);
    apply(copy);
}

void EngagementEngine::updateApp(const AppAudioState& state) {
    {
        std::lock_guard guard(lock_);
        upsertRowLocked(state);
    }
    requestReconcile();
}

void EngagementEngine::setAutoDirect(const AutoDirectList&) {
    // Directness is decided by each row's directLocked alone; the list is carried, not consulted.
    {
        std::lock_guard guard(lock_);
        autoDirect_ = AutoDirectList::bundled();
    }
    requestReconcile();
}

AutoDirectList EngagementEngine::autoDirect() const {
    std::lock_guard guard(lock_);
    return autoDirect_;
}

void EngagementEngine::setForceEngaged(const IDSet& ids, const std::map<std::string, std::string>& names) {
    IDSet allowed;
    for (const auto& id : ids)
        if (TonaviTapSafety::mayCapture(id))
            allowed.insert(id);
    {
        std::lock_guard guard(lock_);
        if (allowed == forceEngaged_)
            return;
        for (const auto& id : allowed) {
            if (configRowLocked(id) || ephemeralApps_.contains(id))
                continue;
            auto name = names.find(id);
            ephemeralApps_.emplace(id, neutralRow(id, name == names.end() ? id : name->second));
        }
        std::erase_if(ephemeralApps_, [&](const auto& entry) { return !allowed.contains(entry.first); });
        forceEngaged_ = std::move(allowed);
        changed();
    }
    requestReconcile();
}

EngagementEngine::IDSet EngagementEngine::forceEngagedIDs() const {
    std::lock_guard guard(lock_);
    return forceEngaged_;
}

std::vector<std::string> EngagementEngine::ephemeralAppIDs() const {
    std::lock_guard guard(lock_);
    std::vector<std::string> ids;
    for (const auto& entry : ephemeralApps_)
        ids.push_back(entry.first);
    return ids;
}

void EngagementEngine::setSoloApps(const IDSet& ids) {
    IDSet allowed;
    for (const auto& id : ids)
        if (TonaviTapSafety::mayCapture(id))
            allowed.insert(id);
    {
        std::lock_guard guard(lock_);
        // Solo and stage mode cannot coexist: stage mode hands every app back to the OS.
        if (allowed.empty() || stageFlag_.load())
            soloAppIDs_.reset();
        else
            soloAppIDs_ = std::move(allowed);
        changed();
    }
    requestReconcile();
}

std::optional<EngagementEngine::IDSet> EngagementEngine::soloedBundleIDs() const {
    std::lock_guard guard(lock_);
    return soloAppIDs_;
}

bool EngagementEngine::soloActive() const {
    std::lock_guard guard(lock_);
    return soloAppIDs_.has_value();
}

bool EngagementEngine::isSoloSuppressed(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    return isSoloSuppressedLocked(bundleID);
}

void EngagementEngine::setCreationEligibility(std::optional<IDSet> eligible) {
    std::lock_guard guard(lock_);
    creationEligibility_ = std::move(eligible);
}

void EngagementEngine::setHardwareSuspended(bool suspended) {
    hardwareSuspended_.store(suspended);
    requestReconcile();
}

void EngagementEngine::setFollowMe(std::optional<std::string> hero, double backgroundGain) {
    std::lock_guard guard(lock_);
    followMeHero_ = std::move(hero);
    followMeBackgroundGain_ = std::clamp(backgroundGain, 0.0, 1.0);
}

void EngagementEngine::setSmartProtected(IDSet apps) {
    std::lock_guard guard(lock_);
    smartProtectedApps_ = std::move(apps);
}

void EngagementEngine::setSoftMasterGain(double gain) {
    std::lock_guard guard(lock_);
    softMasterGain_ = gain;
}

void EngagementEngine::setManualDuckDB(double db) {
    std::lock_guard guard(lock_);
    manualDuckDB_ = db;
}

void EngagementEngine::setAutoDuck(IDSet apps, double db) {
    std::lock_guard guard(lock_);
    autoDuckApps_ = std::move(apps);
    autoDuckDB_ = db;
}

void EngagementEngine::setLoudnessGuard(bool active, double ceilingDBFS) {
    std::lock_guard guard(lock_);
    loudnessGuardActive_ = active;
    loudnessCeilingLinear_ = active ? std::pow(10.0, std::min(ceilingDBFS, 0.0) / 20.0) : 1.0;
}

// ---- Taps ----

std::vector<std::string> EngagementEngine::engagedBundleIDs() const {
    std::lock_guard guard(lock_);
    std::vector<std::string> ids;
    for (const auto& entry : tapHandles_)
        ids.push_back(entry.first); // map order is ascending
    return ids;
}

bool EngagementEngine::hasTap(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    return tapHandles_.contains(bundleID);
}

TapHandlePtr EngagementEngine::tapHandle(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    auto it = tapHandles_.find(bundleID);
    return it == tapHandles_.end() ? nullptr : it->second;
}

bool EngagementEngine::hasControlFailure(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    return failingTaps_.contains(bundleID) && !tapHandles_.contains(bundleID) && wantsTapLocked(bundleID);
}

EngagementEngine::IDSet EngagementEngine::failingBundleIDs() const {
    std::lock_guard guard(lock_);
    return failingTaps_;
}

void EngagementEngine::reconcile() {
    freeRetired();
    const bool blocked = stageFlag_.load() || shutdownFlag_.load() || hardwareSuspended_.load();

    Snapshot snapshot;
    {
        std::lock_guard guard(lock_);
        snapshot.apps = config_.apps;
        snapshot.ephemeralApps = ephemeralApps_;
        snapshot.forceEngaged = forceEngaged_;
        snapshot.autoDirect = autoDirect_;
        snapshot.creationEligibility = creationEligibility_;
        snapshot.soloAppIDs = soloAppIDs_;
        snapshot.hiddenAppIDs = config_.hiddenAppIDs;
        snapshot.smart = config_.smart;
        snapshot.globalListening = config_.globalListening;
    }

    ByApp<AppAudioState> rows;
    for (const auto& app : snapshot.apps)
        rows.insert_or_assign(app.id, app); // later rows win
    for (const auto& [id, app] : snapshot.ephemeralApps)
        rows.try_emplace(id, app);

    // A handle whose row vanished is an orphan: it gets a neutral row and is released below.
    IDSet orphans;
    {
        std::lock_guard guard(lock_);
        for (const auto& entry : tapHandles_)
            if (!rows.contains(entry.first))
                orphans.insert(entry.first);
    }
    for (const auto& id : orphans)
        rows.emplace(id, neutralRow(id, id));

    const double instant = now();
    for (const auto& [id, app] : rows) {
        const bool allowed =
            TonaviTapSafety::mayCapture(id) && !contains(snapshot.hiddenAppIDs, id) && !orphans.contains(id);
        const bool eligible = !snapshot.creationEligibility || snapshot.creationEligibility->contains(id);
        const bool soloSuppressed = snapshot.soloAppIDs && !snapshot.soloAppIDs->contains(id);
        const bool wanted = allowed && eligible && !blocked &&
                            (rowHoldsMute(app, instant) || soloSuppressed ||
                             (!app.directLocked && (isEngaged(app) || snapshot.forceEngaged.contains(id))));

        bool hasHandle;
        {
            std::lock_guard guard(lock_);
            hasHandle = tapHandles_.contains(id);
        }
        if (!wanted && !hasHandle)
            continue;
        if (!wanted)
            reconcileRelease(id);
        else if (!hasHandle)
            reconcileCreate(id, app, snapshot);
        else
            reconcileSwap(id, app, snapshot);
    }

    // Handles that appeared during the pass for apps with no row at all.
    std::vector<TapHandlePtr> strays;
    {
        std::lock_guard guard(lock_);
        std::vector<std::string> ids;
        for (const auto& entry : tapHandles_)
            if (!rows.contains(entry.first))
                ids.push_back(entry.first);
        for (const auto& id : ids)
            if (auto handle = removeTapEntriesLocked(id, false))
                strays.push_back(std::move(handle));
    }
    for (const auto& handle : strays)
        taps_->destroyTap(handle);
}

void EngagementEngine::reconcileRelease(const std::string& bundleID) {
    TapHandlePtr handle;
    {
        std::lock_guard guard(lock_);
        if (wantsTapLocked(bundleID))
            return; // something changed since the snapshot
        handle = removeTapEntriesLocked(bundleID, false);
    }
    if (!handle)
        return;
    taps_->destroyTap(handle);
    std::lock_guard guard(lock_);
    if (failingTaps_.erase(bundleID) > 0)
        changed();
}

void EngagementEngine::reconcileCreate(const std::string& bundleID, const AppAudioState& app,
                                       const Snapshot& snapshot) {
    TapHandlePtr handle = taps_->createTap(bundleID);
    if (!handle) {
        bool inserted;
        {
            std::lock_guard guard(lock_);
            inserted = failingTaps_.insert(bundleID).second;
            changed();
        }
        // Only the edge is logged, so a retry loop cannot flood the health log.
        if (inserted)
            log("tap-failure", "could not create tap for " + bundleID + "; staying direct");
        return;
    }

    auto chain = makeChain(app.chain);
    std::shared_ptr<kavore::GlobalListeningProcessor> global;
    if (snapshot.globalListening.changesAudio() &&
        GlobalListeningPolicy::mayProcess(bundleID, &app, snapshot.hiddenAppIDs, snapshot.smart))
        global = std::make_shared<kavore::GlobalListeningProcessor>(snapshot.globalListening, sampleRate_);
    std::shared_ptr<kavore::SteadyVolume> steady;
    if (app.steadyVolume) {
        steady = std::make_shared<kavore::SteadyVolume>();
        steady->configure(sampleRate_);
    }

    bool kept = false;
    {
        std::lock_guard guard(lock_);
        if (wantsTapLocked(bundleID) && !tapHandles_.contains(bundleID)) {
            storeTapLocked(bundleID, handle, std::move(chain));
            if (global)
                globalListeningProcs_[bundleID] = std::move(global);
            else
                globalListeningProcs_.erase(bundleID);
            if (steady)
                steadyProcs_[bundleID] = std::move(steady);
            else
                steadyProcs_.erase(bundleID);
            kept = true;
        }
    }
    if (!kept) {
        // Lost a race: the decision changed or another path stored a handle. Never leak it.
        taps_->destroyTap(handle);
        return;
    }
    bool wasFailing;
    {
        std::lock_guard guard(lock_);
        wasFailing = failingTaps_.erase(bundleID) > 0;
        changed();
    }
    if (wasFailing)
        log("tap-recovered", bundleID + " is now controlled");
}

void EngagementEngine::reconcileSwap(const std::string& bundleID, const AppAudioState& app,
                                     const Snapshot& snapshot) {
    // Processors are swapped between two render cycles; the tap itself is never touched.
    std::shared_ptr<kavore::RenderChain> chain;
    {
        std::lock_guard guard(lock_);
        if (auto it = chains_.find(bundleID); it != chains_.end())
            chain = it->second;
    }
    if (!chain || !chain->matches(app.chain, sampleRate_)) {
        auto fresh = makeChain(app.chain);
        std::lock_guard guard(lock_);
        if (tapHandles_.contains(bundleID))
            chains_[bundleID] = std::move(fresh);
    }

    const bool wantsGlobal =
        snapshot.globalListening.changesAudio() &&
        GlobalListeningPolicy::mayProcess(bundleID, &app, snapshot.hiddenAppIDs, snapshot.smart);
    if (!wantsGlobal) {
        std::lock_guard guard(lock_);
        globalListeningProcs_.erase(bundleID);
    } else {
        std::shared_ptr<kavore::GlobalListeningProcessor> existing;
        {
            std::lock_guard guard(lock_);
            if (auto it = globalListeningProcs_.find(bundleID); it != globalListeningProcs_.end())
                existing = it->second;
        }
        if (!existing || !existing->settings().matchesDSP(snapshot.globalListening)) {
            auto fresh =
                std::make_shared<kavore::GlobalListeningProcessor>(snapshot.globalListening, sampleRate_);
            std::lock_guard guard(lock_);
            if (tapHandles_.contains(bundleID))
                globalListeningProcs_[bundleID] = std::move(fresh);
        }
    }

    bool hasSteady;
    {
        std::lock_guard guard(lock_);
        hasSteady = steadyProcs_.contains(bundleID);
        if (hasSteady && !app.steadyVolume)
            steadyProcs_.erase(bundleID);
    }
    if (!hasSteady && app.steadyVolume) {
        auto steady = std::make_shared<kavore::SteadyVolume>();
        steady->configure(sampleRate_);
        std::lock_guard guard(lock_);
        // Kept if one appeared meanwhile, so its learned state survives.
        if (tapHandles_.contains(bundleID))
            steadyProcs_.try_emplace(bundleID, std::move(steady));
    }
}

void EngagementEngine::refreshTap(const std::string& bundleID) {
    if (refreshScheduler_)
        refreshScheduler_(bundleID);
    else
        performTapRefresh(bundleID);
}

void EngagementEngine::refreshTaps(std::vector<std::string> bundleIDs) {
    std::sort(bundleIDs.begin(), bundleIDs.end());
    bundleIDs.erase(std::unique(bundleIDs.begin(), bundleIDs.end()), bundleIDs.end());
    for (const auto& id : bundleIDs)
        refreshTap(id);
}

void EngagementEngine::performTapRefresh(const std::string& bundleID) {
    TapHandlePtr old;
    {
        std::lock_guard guard(lock_);
        if (wantsTapLocked(bundleID))
            if (auto it = tapHandles_.find(bundleID); it != tapHandles_.end())
                old = it->second;
    }
    if (!old) {
        requestReconcile();
        return;
    }
    TapHandlePtr fresh = taps_->createTap(bundleID);
    if (!fresh) {
        // Rather direct than playing on a dead route; the next reconcile retries.
        bool removed = false;
        {
            std::lock_guard guard(lock_);
            auto it = tapHandles_.find(bundleID);
            if (it != tapHandles_.end() && it->second == old) {
                tapHandles_.erase(it);
                chains_.erase(bundleID);
                globalListeningProcs_.erase(bundleID);
                smoothedGain_.erase(bundleID);
                removed = true;
            }
        }
        if (removed)
            taps_->destroyTap(old);
        requestReconcile();
        return;
    }
    bool swapped = false;
    {
        std::lock_guard guard(lock_);
        auto it = tapHandles_.find(bundleID);
        if (it != tapHandles_.end() && it->second == old && wantsTapLocked(bundleID)) {
            it->second = fresh;
            // The new tap's first cycle starts at its target; the chains stay.
            if (auto gain = smoothedGain_.find(bundleID); gain != smoothedGain_.end())
                gain->second.reset();
            swapped = true;
        }
    }
    if (swapped)
        taps_->retireReplacedTap(old);
    else
        taps_->destroyTap(fresh);
    requestReconcile();
}

// ---- Output routing ----

double EngagementEngine::effectiveVolume(const AppAudioState& app) const {
    std::lock_guard guard(lock_);
    return effectiveVolumeLocked(app);
}

std::vector<std::string> EngagementEngine::defaultOutputChanged(const std::string& uid, bool reconcile) {
    std::vector<std::string> moved;
    {
        std::lock_guard guard(lock_);
        std::vector<double> before;
        before.reserve(config_.apps.size());
        for (const auto& app : config_.apps)
            before.push_back(effectiveVolumeLocked(app));
        currentDefaultOutputUID_ = uid;
        changed();
        for (std::size_t i = 0; i < config_.apps.size(); ++i)
            if (std::abs(effectiveVolumeLocked(config_.apps[i]) - before[i]) > unityTolerance)
                moved.push_back(config_.apps[i].id);
    }
    if (reconcile)
        requestReconcile();
    return moved;
}

std::string EngagementEngine::currentDefaultOutputUID() const {
    std::lock_guard guard(lock_);
    return currentDefaultOutputUID_;
}

std::string EngagementEngine::routeFor(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    if (isHiddenLocked(bundleID))
        return {};
    for (const auto& lane : config_.lanes)
        if (lane.locked && lane.appBundleID == bundleID)
            return lane.deviceUID;
    if (const AppAudioState* app = managedAppLocked(bundleID))
        return app->redirectUID;
    return {};
}

std::vector<std::string> EngagementEngine::bundleIDsUsingDefaultOutput(
    const std::function<bool(const std::string&)>& deviceExists) const {
    std::vector<std::string> result;
    for (const auto& id : engagedBundleIDs()) {
        const std::string route = routeFor(id);
        // The callback runs outside the lock.
        if (route.empty() || !deviceExists(route))
            result.push_back(id);
    }
    return result;
}

std::string EngagementEngine::validateRedirect(const std::string& bundleID, const std::string& requestedUID) {
    std::string kept;
    bool refused = false;
    {
        std::lock_guard guard(lock_);
        for (const auto& lane : config_.lanes) {
            if (lane.locked && lane.deviceUID == requestedUID && lane.appBundleID != bundleID &&
                !isHiddenLocked(lane.appBundleID)) {
                refused = true;
                break;
            }
        }
        if (refused)
            if (const AppAudioState* app = configRowLocked(bundleID))
                kept = app->redirectUID;
    }
    if (!refused)
        return requestedUID;
    log("lane-protect", bundleID + " kept out of locked lane on " + requestedUID);
    return kept;
}

std::vector<std::string> EngagementEngine::deviceReconnected(const std::string& uid) const {
    std::lock_guard guard(lock_);
    std::vector<std::string> ids;
    for (const auto& lane : config_.lanes)
        if (lane.locked && lane.deviceUID == uid && !isHiddenLocked(lane.appBundleID))
            ids.push_back(lane.appBundleID);
    return ids;
}

// ---- Ducking ----

void EngagementEngine::setActiveTriggers(IDSet triggers) {
    {
        std::lock_guard guard(lock_);
        std::erase_if(triggers, [&](const std::string& id) { return isHiddenLocked(id); });
        ducker_->setActiveTriggers(triggers);
    }
    if (stageFlag_.load() || shutdownFlag_.load() || hardwareSuspended_.load())
        return;

    // An unengaged ducked app has no tap, and a gain needs one: open it now.
    std::vector<std::pair<std::string, kavore::ChainSettings>> candidates;
    {
        std::lock_guard guard(lock_);
        IDSet seen;
        for (const auto& rule : config_.duckRules) {
            if (!rule.enabled || !triggers.contains(rule.triggerBundleID))
                continue;
            for (const auto& id : rule.duckedBundleIDs) {
                if (seen.contains(id) || isHiddenLocked(id) || isProtected(id))
                    continue;
                const AppAudioState* app = configRowLocked(id);
                if (!app || isEngaged(*app) || app->directLocked)
                    continue;
                seen.insert(id);
                candidates.emplace_back(id, app->chain);
            }
        }
    }
    for (const auto& [id, chainSettings] : candidates) {
        {
            std::lock_guard guard(lock_);
            if (tapHandles_.contains(id))
                continue;
        }
        TapHandlePtr handle = taps_->createTap(id);
        if (!handle)
            continue;
        auto chain = makeChain(chainSettings);
        bool stored = false;
        {
            std::lock_guard guard(lock_);
            if (!tapHandles_.contains(id)) {
                storeTapLocked(id, handle, std::move(chain));
                stored = true;
            }
        }
        if (!stored)
            taps_->destroyTap(handle);
    }
}

void EngagementEngine::advanceDucking(long long frames) {
    std::lock_guard guard(lock_);
    ducker_->advance(frames > 0 ? static_cast<double>(frames) : 0.0);
}

void EngagementEngine::advanceDucking(long long frames, double hostTimeSeconds) {
    std::lock_guard guard(lock_);
    ducker_->advance(frames, hostTimeSeconds);
}

double EngagementEngine::duckGain(std::string_view bundleID) const {
    std::lock_guard guard(lock_);
    return ducker_->currentGain(bundleID);
}

EngagementEngine::IDSet EngagementEngine::activeDuckTriggers() const {
    std::lock_guard guard(lock_);
    return ducker_->currentActiveTriggers();
}

std::vector<std::string> EngagementEngine::globalPluginSlotIDs() const {
    std::lock_guard guard(lock_);
    return *globalPluginSlotIDs_;
}

} // namespace tonavi
