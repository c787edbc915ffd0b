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

TEST(TapWorkerStateJSON, GoldenDocumentBothWaysAndRequiredKeys) {
    const json doc = goldenDocument();
    const auto state = doc.get<TapWorkerState>();
    // Spot checks where two keys of one type could trade places and still come back the same.
    EXPECT_EQ(state.followMeBackgroundGain, 0.3);
    EXPECT_EQ(state.softMasterGain, 0.8);
    EXPECT_EQ(state.loudnessGuardCeilingDBFS, -3.0);

    // Written back: the same keys and values; the app and the rules carry their own full records.
    json expected = doc;
    expected["app"] = json(state.app);
    expected["duckRules"] = json(state.duckRules);
    EXPECT_EQ(json(state), expected);

    // An absent hero is left out, and reads back as absent.
    json heroless = doc;
    heroless.erase("followMeHero");
    const auto noHero = heroless.get<TapWorkerState>();
    EXPECT_FALSE(noHero.followMeHero.has_value());
    EXPECT_FALSE(json(noHero).contains("followMeHero"));

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
