#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

TEST(ProcessorSettingsJSON, BalanceAndNoiseReadStrictlyAndUnclamped) {
    const auto balance =
        kavore::balancePanSettingsFromJSON(json::parse(R"({"balance": 3, "enabled": true})"));
    EXPECT_EQ(balance.balance, 3.0) << "reading keeps the stored value";
    EXPECT_TRUE(balance.enabled);
    EXPECT_EQ(kavore::BalancePanSettings(3.0, true).balance, 1.0) << "building in code clamps";
    EXPECT_EQ(kavore::balancePanSettingsFromJSON(kavore::toJSON(kavore::BalancePanSettings(-0.4, true))),
              kavore::BalancePanSettings(-0.4, true));

    const auto noise =
        kavore::noiseSuppressorSettingsFromJSON(json::parse(R"({"amount": -2.5, "enabled": false})"));
    EXPECT_EQ(noise.amount, -2.5);
    EXPECT_EQ(kavore::NoiseSuppressorSettings(-2.5, true).amount, 0.0);
    EXPECT_EQ(kavore::toJSON(kavore::NoiseSuppressorSettings(0.25, true)),
              json::parse(R"({"amount":0.25,"enabled":true})"));

    for (const char* bad :
         {R"({"balance": 0.5})", R"({"enabled": true})", R"({"balance": "0.5", "enabled": true})",
          R"({"balance": 0.5, "enabled": 1})", "[0.5, true]"}) {
        EXPECT_THROW(kavore::balancePanSettingsFromJSON(json::parse(bad)), kavore::JSONDecodeError) << bad;
    }
    EXPECT_THROW(kavore::noiseSuppressorSettingsFromJSON(json::parse(R"({"amount": 0.5})")),
                 kavore::JSONDecodeError);
}

TEST(ProcessorSettingsJSON, HeadphoneProfilesRoundTripAndRejectAnyMissingPart) {
    for (const auto& profile : kavore::BundledHeadphoneProfiles::all()) {
        EXPECT_EQ(kavore::headphoneProfileFromJSON(json::parse(kavore::toJSON(profile).dump())), profile);
    }
    const json good = json::parse(R"({"id": "a", "name": "b", "preampDB": -2,
        "filters": [{"kind": "lowShelf", "freqHz": 105, "gainDB": 2, "q": 0.7}]})");
    const auto profile = kavore::headphoneProfileFromJSON(good);
    ASSERT_EQ(profile.filters.size(), 1u);
    EXPECT_EQ(profile.filters[0].kind, kavore::ParametricFilter::Kind::lowShelf);

    for (const char* key : {"id", "name", "preampDB", "filters"}) {
        json bad = good;
        bad.erase(key);
        EXPECT_THROW(kavore::headphoneProfileFromJSON(bad), kavore::JSONDecodeError) << key;
    }
    for (const char* key : {"kind", "freqHz", "gainDB", "q"}) {
        json bad = good;
        bad["filters"][0].erase(key);
        EXPECT_THROW(kavore::headphoneProfileFromJSON(bad), kavore::JSONDecodeError) << key;
    }
    json unknownKind = good;
    unknownKind["filters"][0]["kind"] = "bandPass";
    EXPECT_THROW(kavore::headphoneProfileFromJSON(unknownKind), kavore::JSONDecodeError);
}
