#include "audio/listening/GlobalListeningSettingsJSON.hpp"
#include "core/config/ConfigDecodeError.hpp"
#include "core/engine/HealthEvent.hpp"
#include "core/engine/TapWorkerState.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tonavi {
namespace {

using nlohmann::json;

// Every key the worker reads, spelled as the service writes it.
json goldenDocument() {
    json doc = json::parse(R"({
      "app": {"id": "com.apple.Music", "volume": 0.5, "muted": true},
      "currentDefaultOutputUID": "BuiltInSpeakers", "sampleRate": 44100.0, "stageMode": true,
      "followMeHero": "com.zoom.us", "followMeBackgroundGain": 0.3, "softMasterGain": 0.8, "manualDuckDB": -6.0,
      "autoDuckApps": ["com.apple.Music", "com.spotify.client"], "autoDuckDB": -12.0,
      "loudnessGuardActive": true, "loudnessGuardCeilingDBFS": -3.0,
      "duckRules": [{"id": "R", "triggerBundleID": "com.zoom.us", "duckedBundleIDs": ["com.apple.Music"]}],
      "activeDuckTriggers": ["com.zoom.us"]
    })");
    doc["globalListening"] = kavore::toJSON(kavore::GlobalListeningSettings(true, {}, {}, {}));
    return doc;
}

TapWorkerState goldenState() {
    TapWorkerState state;
    state.app = AppAudioState("com.apple.Music");
    state.app.volume = 0.5;
    state.app.muted = true;
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
    state.globalListening = kavore::GlobalListeningSettings(true, {}, {}, {});
    AutoDuckRule rule;
    rule.id = "R";
    rule.triggerBundleID = "com.zoom.us";
    rule.duckedBundleIDs = {"com.apple.Music"};
    state.duckRules = {rule};
    state.activeDuckTriggers = {"com.zoom.us"};
    return state;
}

TEST(TapWorkerStateJSON, GoldenDocumentBothWaysAndRequiredKeys) {
    const json doc = goldenDocument();
    EXPECT_EQ(doc.get<TapWorkerState>(), goldenState());

    // Written back: the same keys and values; the app and the rules carry their own full records.
    json written = goldenState();
    EXPECT_EQ(written["app"], json(goldenState().app));
    EXPECT_EQ(written["duckRules"], json(goldenState().duckRules));
    written.erase("app");
    written.erase("duckRules");
    json expected = doc;
    expected.erase("app");
    expected.erase("duckRules");
    EXPECT_EQ(written, expected);

    // An absent hero is left out, and reads back as absent.
    TapWorkerState noHero = goldenState();
    noHero.followMeHero.reset();
    EXPECT_FALSE(json(noHero).contains("followMeHero"));
    json heroless = doc;
    heroless.erase("followMeHero");
    EXPECT_EQ(heroless.get<TapWorkerState>(), noHero);

    for (const char* key : {"app", "sampleRate", "duckRules", "activeDuckTriggers"}) {
        json missing = doc;
        missing.erase(key);
        EXPECT_THROW(missing.get<TapWorkerState>(), ConfigDecodeError) << key;
    }
    json noID = doc;
    noID["app"].erase("id");
    EXPECT_THROW(noID.get<TapWorkerState>(), ConfigDecodeError);
}

TEST(HealthEventJSON, GoldenDocumentBothWaysAndEveryKeyRequired) {
    const json doc = json::parse(
        R"({"id": "0F8D3C1A-0000-4000-8000-000000000001", "at": 1700000000.5, "kind": "tap-failure", "detail": "x"})");
    const HealthEvent event{"0F8D3C1A-0000-4000-8000-000000000001", 1700000000.5, "tap-failure", "x"};
    EXPECT_EQ(doc.get<HealthEvent>(), event);
    EXPECT_EQ(json(event), doc);
    for (const char* key : {"id", "at", "kind", "detail"}) {
        json missing = doc;
        missing.erase(key);
        EXPECT_THROW(missing.get<HealthEvent>(), nlohmann::json::exception) << key;
    }
}

} // namespace
} // namespace tonavi
