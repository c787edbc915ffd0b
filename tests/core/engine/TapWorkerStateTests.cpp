#include "core/config/ConfigDecodeError.hpp"
#include "core/engine/TapWorkerState.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

TapWorkerState sampleState() {
    TapWorkerState state;
    state.app = AppAudioState("com.apple.Music");
    state.app.volume = 0.5;
    state.app.muted = true;
    state.app.volumePerDevice = {{"usb", 0.25}};
    state.currentDefaultOutputUID = "BuiltInSpeakers";
    state.sampleRate = 44100.0;
    state.stageMode = true;
    state.followMeHero = "com.zoom.us";
    state.followMeBackgroundGain = 0.3;
    state.softMasterGain = 0.8;
    state.manualDuckDB = -6.0;
    state.autoDuckApps = {"com.apple.Music", "com.spotify.client"};
    state.autoDuckDB = -12.0;
    state.loudnessGuardActive = true;
    state.loudnessGuardCeilingDBFS = -3.0;
    state.globalListening.enabled = true;
    AutoDuckRule rule;
    rule.id = "R";
    rule.triggerBundleID = "com.zoom.us";
    rule.duckedBundleIDs = {"com.apple.Music"};
    state.duckRules = {rule};
    state.activeDuckTriggers = {"com.zoom.us"};
    return state;
}

TEST(TapWorkerStateJSON, RoundTripsOmitsAnAbsentHeroAndRejectsMissingKeys) {
    const TapWorkerState state = sampleState();
    const nlohmann::json json = state;
    EXPECT_EQ(json.at("autoDuckApps"), nlohmann::json({"com.apple.Music", "com.spotify.client"}));
    EXPECT_EQ(nlohmann::json::parse(json.dump()).get<TapWorkerState>(), state);

    TapWorkerState noHero = state;
    noHero.followMeHero.reset();
    const nlohmann::json heroless = noHero;
    EXPECT_FALSE(heroless.contains("followMeHero"));
    EXPECT_EQ(heroless.get<TapWorkerState>(), noHero);

    for (const char* key : {"app", "sampleRate", "duckRules", "activeDuckTriggers"}) {
        nlohmann::json missing = json;
        missing.erase(key);
        EXPECT_THROW(missing.get<TapWorkerState>(), ConfigDecodeError) << key;
    }
    nlohmann::json noID = json;
    noID["app"].erase("id");
    EXPECT_THROW(noID.get<TapWorkerState>(), ConfigDecodeError);
}

} // namespace
} // namespace tonavi
