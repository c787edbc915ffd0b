#pragma once
// Decides, for every application, whether its audio stays on the operating system's direct path or
// is taken through a tap and rendered here, and renders tapped audio.
//
// A tap exists only while something needs controlling: an app at unity gain with a neutral chain
// and no route never gets one. `reconcile` is the one central decision; everything else only changes
// inputs and asks for a reconcile. The engine knows nothing of any platform: it holds opaque handles
// and drives a TapProviding.
//
// Locking: `lock` is one plain mutex over all mutable state, held only for lookups and stores,
// never across a provider call, a chain configuration or a callback. After every provider call the
// state is re-validated under the lock by comparing handle identity. The audio thread takes it too,
// which is bearable because a worker's engine renders one app.

#include "core/config/AutoDirectList.hpp"
#include "core/config/TonaviConfig.hpp"
#include "core/engine/AtomicFlag.hpp"
#include "core/engine/Ducker.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/engine/TapProviding.hpp"
#include "core/engine/TapWorkerState.hpp"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavore {
class RenderChain;
class GlobalListeningProcessor;
class SteadyVolume;
} // namespace kavore

namespace tonavi {

class EngagementEngine {
  public:
    using IDSet = std::set<std::string, std::less<>>;
    template <class Value> using ByApp = std::map<std::string, Value, std::less<>>;

    using HealthCallback = std::function<void(const HealthEvent&)>;
    using Scheduler = std::function<void()>;
    using RefreshScheduler = std::function<void(const std::string&)>;
    using AURender = std::function<void(const std::string& slotID, std::span<float> buffer)>;
    using AULatency = std::function<int(const std::string& slotID)>;
    // Seconds since 1970; replaceable so tests can drive timed mutes with a manual clock.
    using Clock = std::function<double()>;

    static constexpr std::size_t healthLogCapacity = 200;

    EngagementEngine(const TonaviConfig& config, std::shared_ptr<TapProviding> taps,
                     AutoDirectList autoDirect, double sampleRate, bool autoReconcile, Clock clock = {});
    ~EngagementEngine();
    EngagementEngine(const EngagementEngine&) = delete;
    EngagementEngine& operator=(const EngagementEngine&) = delete;

    // ---- Pure rules ----

    // Whether the row's own settings ask for control.
    static bool isEngaged(const AppAudioState& app);
    // Drops rows and ducked IDs of apps that may never be tapped, and normalizes global listening.
    // The list is accepted and ignored.
    static TonaviConfig sanitized(const TonaviConfig& config, const AutoDirectList& autoDirect);
    static bool isProtected(std::string_view bundleID);
    // The row a force-engaged app without a configured row gets: unity, unmuted, empty chain.
    static AppAudioState neutralRow(const std::string& bundleID, const std::string& displayName);
    // Peak limiter without look-ahead: 1.5 ms attack, 150 ms release, per frame. Returns the gain
    // reduction at the end of the buffer, which the next buffer starts from.
    static double applyPeakLimiter(std::span<float> buffer, double ceiling, double prior, int stride,
                                   double sampleRate);

    // ---- Hooks (set before the engine is used from more than one thread) ----

    void setOnHealthEvent(HealthCallback callback) { onHealthEvent_ = std::move(callback); }
    void setReconciliationScheduler(Scheduler scheduler) { reconciliationScheduler_ = std::move(scheduler); }
    void setRefreshScheduler(RefreshScheduler scheduler) { refreshScheduler_ = std::move(scheduler); }
    void setExternalAURender(AURender render) { externalAURender_ = std::move(render); }
    void setExternalAULatency(AULatency latency) { externalAULatency_ = std::move(latency); }
    void setInputChannels(int channels);

    // ---- Configuration ----

    TonaviConfig config() const;
    std::optional<AppAudioState> managedApp(std::string_view bundleID) const;
    void requestReconcile();
    void apply(const TonaviConfig& config);
    void setConfigWithoutReconcile(const TonaviConfig& config);
    void applyImportedConfig(const TonaviConfig& config, const AutoDirectList& autoDirect);
    void mutateConfig(const std::function<void(TonaviConfig&)>& mutation);
    void updateApp(const AppAudioState& state);
    void setAutoDirect(const AutoDirectList& list);
    AutoDirectList autoDirect() const;
    void setForceEngaged(const IDSet& ids, const std::map<std::string, std::string>& names);
    IDSet forceEngagedIDs() const;
    std::vector<std::string> ephemeralAppIDs() const;
    void setSoloApps(const IDSet& ids);
    std::optional<IDSet> soloedBundleIDs() const;
    bool soloActive() const;
    bool isSoloSuppressed(std::string_view bundleID) const;
    void setCreationEligibility(std::optional<IDSet> eligible);
    void setHardwareSuspended(bool suspended);
    bool hardwareSuspended() const { return hardwareSuspended_.load(); }
    void setFollowMe(std::optional<std::string> hero, double backgroundGain);
    void setSmartProtected(IDSet apps);
    void setSoftMasterGain(double gain);
    void setManualDuckDB(double db);
    void setAutoDuck(IDSet apps, double db);
    void setLoudnessGuard(bool active, double ceilingDBFS);

    // ---- Taps ----

    std::vector<std::string> engagedBundleIDs() const;
    bool hasTap(std::string_view bundleID) const;
    TapHandlePtr tapHandle(std::string_view bundleID) const;
    bool hasControlFailure(std::string_view bundleID) const;
    IDSet failingBundleIDs() const;
    void reconcile();
    void refreshTap(const std::string& bundleID);
    void refreshTaps(std::vector<std::string> bundleIDs);
    // Make before break: a new tap is created while the old one plays on, then swapped in.
    void performTapRefresh(const std::string& bundleID);

    // ---- Output routing ----

    double effectiveVolume(const AppAudioState& app) const;
    // Returns, in config order, the apps whose effective volume moved with the new default.
    std::vector<std::string> defaultOutputChanged(const std::string& uid, bool reconcile = true);
    std::string currentDefaultOutputUID() const;
    std::string routeFor(std::string_view bundleID) const;
    std::vector<std::string>
    bundleIDsUsingDefaultOutput(const std::function<bool(const std::string&)>& deviceExists) const;
    std::string validateRedirect(const std::string& bundleID, const std::string& requestedUID);
    std::vector<std::string> deviceReconnected(const std::string& uid) const;

    // ---- Ducking ----

    void setActiveTriggers(IDSet triggers);
    void advanceDucking(long long frames);
    void advanceDucking(long long frames, double hostTimeSeconds);
    double duckGain(std::string_view bundleID) const;
    IDSet activeDuckTriggers() const;

    // ---- Render (audio thread) ----

    // Applies everything this system does to one cycle of the app's interleaved audio, in place.
    // Returns true when it modified the buffer; false means the samples pass as they are.
    bool render(std::string_view bundleID, std::span<float> buffer);
    int latencySamples(std::string_view bundleID, int tapBufferFrames, int outputBufferFrames) const;
    std::optional<TapWorkerState> tapWorkerState(std::string_view bundleID) const;
    // Carried render state, for status and tests.
    std::optional<double> smoothedGain(std::string_view bundleID) const;
    std::optional<double> limiterGR(std::string_view bundleID) const;

    // ---- Safety ----

    void setStageMode(bool on);
    bool stageMode() const { return stageFlag_.load(); }
    void releaseAllTapsForShutdown();
    void releaseTap(const std::string& bundleID, const std::string& reason,
                    const TapHandlePtr& expectedHandle = nullptr);
    void autoRevert(const std::string& bundleID, const std::string& reason);
    void autoRevertAUSlot(const std::string& slotID, const std::string& reason);
    std::vector<HealthEvent> healthLog() const;
    std::vector<std::string> globalPluginSlotIDs() const;
    // Moves whenever something a status shows changes: the configuration, taps, failures, solo, stage
    // mode, the default output or the health log. Readers compare it to skip rebuilding a status.
    std::uint64_t revision() const { return revision_.load(std::memory_order_acquire); }

  private:
    struct Snapshot;
    struct RenderContext;
    struct Removed;

    // All below need `lock_` held.
    const AppAudioState* configRowLocked(std::string_view bundleID) const;
    void upsertRowLocked(const AppAudioState& state);
    const AppAudioState* managedAppLocked(std::string_view bundleID) const;
    bool wantsTapLocked(std::string_view bundleID) const;
    bool holdsMuteLocked(std::string_view bundleID) const;
    bool isHiddenLocked(std::string_view bundleID) const;
    bool isSoloSuppressedLocked(std::string_view bundleID) const;
    double effectiveVolumeLocked(const AppAudioState& app) const;
    template <class Now>
    void fillContextLocked(std::string_view bundleID, const AppAudioState& row, const Now& instant,
                           RenderContext& context) const;
    void recomputePluginSlotIDsLocked();
    // Removes the per-tap entries; `includingLimiter` also drops the carried limiter gain.
    TapHandlePtr removeTapEntriesLocked(std::string_view bundleID, bool includingLimiter);
    // Stores a fresh handle and makes sure the render state nodes exist, so the audio thread only
    // writes into them and never allocates.
    void storeTapLocked(const std::string& bundleID, TapHandlePtr handle,
                        std::shared_ptr<kavore::RenderChain> chain);

    void install(const TonaviConfig& config, const AutoDirectList* autoDirect);
    // A cycle's references that the control path dropped meanwhile are its last: they are parked
    // here (within reserved room, so the audio thread never allocates) and freed by the control path.
    void retireLastReferences(RenderContext& context);
    void freeRetired();
    std::shared_ptr<kavore::RenderChain> makeChain(const kavore::ChainSettings& settings) const;
    double now() const;
    void log(const std::string& kind, const std::string& detail);
    void changed() { revision_.fetch_add(1, std::memory_order_release); }

    void reconcileRelease(const std::string& bundleID);
    void reconcileCreate(const std::string& bundleID, const AppAudioState& app, const Snapshot& snapshot);
    void reconcileSwap(const std::string& bundleID, const AppAudioState& app, const Snapshot& snapshot);

    mutable std::mutex lock_;
    std::atomic<std::uint64_t> revision_{0};
    TonaviConfig config_;
    const std::shared_ptr<TapProviding> taps_;
    const double sampleRate_;
    ByApp<std::shared_ptr<kavore::RenderChain>> chains_;
    ByApp<std::shared_ptr<kavore::GlobalListeningProcessor>> globalListeningProcs_;
    // Replaced wholesale so the render path can hold the list of a cycle without copying it.
    std::shared_ptr<const std::vector<std::string>> globalPluginSlotIDs_;
    ByApp<std::shared_ptr<kavore::SteadyVolume>> steadyProcs_;
    ByApp<TapHandlePtr> tapHandles_;
    static constexpr std::size_t retiredCapacity = 32;
    std::vector<std::shared_ptr<const void>> retired_; // under lock_; capacity reserved up front
    AutoDirectList autoDirect_;
    AtomicFlag stageFlag_;
    AtomicFlag hardwareSuspended_;
    AtomicFlag shutdownFlag_;
    std::unique_ptr<Ducker> ducker_;
    mutable std::mutex healthLock_; // leaf lock around the health log array only
    std::deque<HealthEvent> healthLog_;
    IDSet failingTaps_;
    std::optional<IDSet> creationEligibility_;
    std::optional<IDSet> soloAppIDs_;
    HealthCallback onHealthEvent_;
    Scheduler reconciliationScheduler_;
    AURender externalAURender_;
    AULatency externalAULatency_;
    ByApp<AppAudioState> ephemeralApps_;
    IDSet forceEngaged_;
    RefreshScheduler refreshScheduler_;
    int inputChannels_ = 2;
    std::optional<std::string> followMeHero_;
    double followMeBackgroundGain_ = 1.0;
    IDSet smartProtectedApps_;
    bool loudnessGuardActive_ = false;
    double loudnessCeilingLinear_ = 1.0;
    // Carried render state. An empty optional is an absent entry; the map nodes are made on the
    // control path when a tap is stored, so the audio thread only assigns into them.
    ByApp<std::optional<double>> limiterGR_;
    double softMasterGain_ = 1.0;
    double manualDuckDB_ = 0.0;
    double autoDuckDB_ = 0.0;
    IDSet autoDuckApps_;
    ByApp<std::optional<double>> smoothedGain_;
    std::string currentDefaultOutputUID_;

    Clock clock_;
    // Chains reach the engine's plug-in bridges through this, weakly, so a chain that outlives the
    // engine bridges to nothing.
    std::shared_ptr<EngagementEngine*> anchor_;
    // exp(-1 / (sampleRate x 8 ms)): the per-frame pole of the gain smoother.
    const double smootherCoefficient_;
};

} // namespace tonavi
