#include "service/worker/TapWorkerRenderer.hpp"

#include "service/worker/TapWorkerEventWriter.hpp"
#include "service/worker/WorkerDummyTaps.hpp"
#include "platform/PluginHost.hpp"

namespace tonavi {

TapWorkerRenderer::TapWorkerRenderer(const TapWorkerState& state, TapWorkerEventWriter& writer, double sampleRate)
    : bundleID_(state.app.id),
      auSlots_(AUSlotRegistry::make(AUSlotRegistry::platformInstantiate(PluginHost::shared()))), writer_(writer),
      latestState_(state), renderSampleRate_(sampleRate) {
    TonaviConfig config;
    config.apps.clear();
    engine_ = std::make_unique<EngagementEngine>(config, std::make_shared<WorkerDummyTaps>(), AutoDirectList{},
                                                 sampleRate, /*autoReconcile=*/false);
    // Audio thread: the lookup holds the registry's lock only while it finds the host.
    engine_->setExternalAURender([slots = auSlots_.get()](const std::string& slotID, std::span<float> buffer) {
        if (auto host = slots->host(slotID))
            host->process(buffer);
    });
    engine_->setExternalAULatency([slots = auSlots_.get()](const std::string& slotID) {
        auto host = slots->host(slotID);
        return host ? host->latencySamples() : 0;
    });
    auSlots_->setOnFailure([&writer](const std::string& slotID, const std::string& message) {
        writer.send(TapWorkerEvent::slotFailed(slotID, message));
    });
    apply(state);
}

void TapWorkerRenderer::apply(const TapWorkerState& state) {
    {
        std::lock_guard guard(stateLock_);
        latestState_ = state;
    }
    TonaviConfig config;
    config.apps = {state.app};
    config.duckRules = state.duckRules;
    config.globalListening = state.globalListening;
    // The service sends a state on every smart pass, mostly unchanged: the inputs go in without a
    // reconcile each, and stage mode is touched only when it changes (each switch is a health event).
    engine_->setConfigWithoutReconcile(config);
    engine_->setForceEngaged({state.app.id}, {{state.app.id, state.app.displayName}});
    if (engine_->stageMode() != state.stageMode)
        engine_->setStageMode(state.stageMode);
    engine_->defaultOutputChanged(state.currentDefaultOutputUID, /*reconcile=*/false);
    engine_->setFollowMe(state.followMeHero, state.followMeBackgroundGain);
    engine_->setSoftMasterGain(state.softMasterGain);
    engine_->setManualDuckDB(state.manualDuckDB);
    engine_->setAutoDuck(EngagementEngine::IDSet(state.autoDuckApps.begin(), state.autoDuckApps.end()),
                         state.autoDuckDB);
    engine_->setLoudnessGuard(state.loudnessGuardActive, state.loudnessGuardCeilingDBFS);
    engine_->setActiveTriggers(EngagementEngine::IDSet(state.activeDuckTriggers.begin(),
                                                       state.activeDuckTriggers.end()));
    engine_->reconcile();
    if (audioUnitsEnabled_.load())
        syncAudioUnits(state);
}

void TapWorkerRenderer::syncAudioUnits(const TapWorkerState& state) {
    kavore::ChainSettings global;
    global.slots = state.globalListening.activeAudioUnitSlots();
    auSlots_->sync({state.app.chain, global}, renderSampleRate_);
}

void TapWorkerRenderer::render(std::span<float> buffer, long long frames, double hostTimeSeconds) {
    engine_->advanceDucking(frames, hostTimeSeconds);
    engine_->render(bundleID_, buffer);
}

void TapWorkerRenderer::enableAudioUnits() {
    audioUnitsEnabled_.store(true);
    syncAudioUnits(latestState());
}

TapWorkerState TapWorkerRenderer::latestState() const {
    std::lock_guard guard(stateLock_);
    return latestState_;
}

} // namespace tonavi
