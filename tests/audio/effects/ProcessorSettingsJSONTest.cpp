#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace kavore;
using nlohmann::json;

// Reading keeps the stored value; building in code clamps. Both keys are required, and typed.
TEST(ProcessorSettingsJSON, BalanceAndNoiseReadStrictlyAndUnclamped) {
    EXPECT_EQ(toJSON(BalancePanSettings(-0.4, true)), json::parse(R"({"balance": -0.4, "enabled": true})"));
    EXPECT_EQ(toJSON(NoiseSuppressorSettings(0.25, true)),
              json::parse(R"({"amount": 0.25, "enabled": true})"));
    EXPECT_EQ(balancePanSettingsFromJSON(json::parse(R"({"balance": 3, "enabled": true})")),
              BalancePanSettings::unclamped(3.0, true));
    EXPECT_EQ(BalancePanSettings(3.0, true).balance, 1.0);
    EXPECT_EQ(noiseSuppressorSettingsFromJSON(json::parse(R"({"amount": -2.5, "enabled": false})")),
              NoiseSuppressorSettings::unclamped(-2.5, false));
    EXPECT_EQ(NoiseSuppressorSettings(-2.5, true).amount, 0.0);
    for (const char* bad : {R"({"balance": 0.5})", R"({"balance": "0.5", "enabled": true})", "[0.5, true]"})
        EXPECT_THROW(balancePanSettingsFromJSON(json::parse(bad)), JSONDecodeError) << bad;
    for (const char* bad : {R"({"enabled": true})", R"({"amount": 0.5, "enabled": "yes"})"})
        EXPECT_THROW(noiseSuppressorSettingsFromJSON(json::parse(bad)), JSONDecodeError) << bad;
}

TEST(ProcessorSettingsJSON, HeadphoneProfileGoldenDocumentAndEveryMissingPart) {
    const json golden = json::parse(R"({"id": "a", "name": "b", "preampDB": -2.5, "filters": [
        {"kind": "lowShelf", "freqHz": 105.0, "gainDB": 2.0, "q": 0.7},
        {"kind": "peaking", "freqHz": 3000.0, "gainDB": -4.5, "q": 2.0},
        {"kind": "highShelf", "freqHz": 10000.0, "gainDB": 1.0, "q": 0.71}]})");
    using Kind = ParametricFilter::Kind;
    const HeadphoneProfile profile{"a",
                                   "b",
                                   -2.5,
                                   {{Kind::lowShelf, 105.0, 2.0, 0.7},
                                    {Kind::peaking, 3000.0, -4.5, 2.0},
                                    {Kind::highShelf, 10000.0, 1.0, 0.71}}};
    EXPECT_EQ(toJSON(profile), golden);
    EXPECT_EQ(headphoneProfileFromJSON(golden), profile);

    for (const char* pointer : {"/id", "/name", "/preampDB", "/filters", "/filters/1/kind",
                                "/filters/1/freqHz", "/filters/1/gainDB", "/filters/1/q"}) {
        json bad = golden;
        const json::json_pointer at(pointer);
        bad.at(at.parent_pointer()).erase(at.back());
        EXPECT_THROW(headphoneProfileFromJSON(bad), JSONDecodeError) << pointer;
    }
    json unknownKind = golden;
    unknownKind["filters"][0]["kind"] = "bandPass";
    EXPECT_THROW(headphoneProfileFromJSON(unknownKind), JSONDecodeError);
}
