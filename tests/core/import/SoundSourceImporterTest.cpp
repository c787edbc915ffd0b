#include "core/import/SoundSourceImporter.hpp"

#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "tests/core/import/SoundSourcePlist.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>


namespace tonavi {
namespace {

using namespace test;
using kavore::EffectKind;

Plist mixer() {
    const auto eq = [](std::vector<std::pair<std::string, Plist>> values) {
        return effect("TC10BandEQMarkup", "EQ", dict(std::move(values)));
    };
    const auto balance = [](double b) { return effect("TCBalanceMarkup", "Balance", dict({{"balance", real(b)}})); };
    return dict({{"modelItems",
                  array({dict({{"infoKey", str("OutputSource")}, {"effects", array({eq({{"band3", real(0.75)}})})}}),
                         appSource("com.a", " Alpha\n", {{"position", real(1e10)}},
                                   {eq({{"band1", real(0.5)}, {"preamp", real(0.5)}}),
                                    eq({{"band1", real(1.0)}, {"band2", real(0.0)}}), balance(0.0005), balance(2),
                                    effect("TCVolumeOverdriveMarkup", "Boost", dict({})), plugin("ns1 noise", 1),
                                    plugin("Name", 1), plugin("Name", 1), plugin("Found", 7, " Maker Co: Found ")}),
                         appSource("com.b", "",
                                   {{"customName", str("Beta")},
                                    {"volumeProperties", dict({{"volume", real(1.4)}, {"mute", flag(true)}})},
                                    {"favourite", flag(false)}, {"position", real(3.7)}},
                                   {plugin("Name", 1)}),
                         appSource(" \n", "Nobody", {}), dict({{"infoKey", str("DeviceSource")}})})}});
}

SoundSourceImportResult importMixer(bool binary) {
    TonaviConfig base;
    base.apps = {AppAudioState("com.keep"), AppAudioState("com.b")};
    base.apps[1].volume = 0.3;
    return SoundSourceImporter::importData(bytes(mixer(), binary), {}, base, AutoDirectList(),
                                           [](const kavore::AUComponentKey& key) { return key.type == 7; });
}

template <typename Settings> Settings settingsOf(const kavore::EffectSlot& slot, Settings (*decode)(const nlohmann::json&)) {
    return decode(nlohmann::json::parse(slot.settingsJSON));
}

TEST(SoundSourceImporterTest, MapsAMixerTheSameFromBinaryAndXML) {
    const SoundSourceImportResult xml = importMixer(false);
    SoundSourceImportResult binary = importMixer(true);
    const auto withoutIDs = [](TonaviConfig config) {
        for (auto& slot : config.systemRows.systemChain.slots)
            slot.id.clear();
        for (auto& app : config.apps)
            for (auto& slot : app.chain.slots)
                slot.id.clear();
        return config;
    };
    EXPECT_EQ(withoutIDs(xml.config), withoutIDs(binary.config));
    EXPECT_EQ(xml.autoDirect, AutoDirectList::bundled());
    EXPECT_EQ(xml.importedApps, 2);
    EXPECT_EQ(xml.importedEffects, 5);
    EXPECT_EQ(xml.mappedEffects, (std::vector<std::string>{"Alpha: Found with exact Audio Unit preset",
                                                           "Alpha: ns1 noise mapped to built-in Noise Suppressor"}));
    EXPECT_EQ(xml.skippedEffects, (std::vector<std::string>{"Alpha: Name needs a fresh plugin preset",
                                                            "Beta: Name needs a fresh plugin preset"}));

    const auto& config = binary.config;
    ASSERT_EQ(config.apps.size(), 3u);
    EXPECT_EQ(settingsOf(config.systemRows.systemChain.slots.at(0), kavore::eq10SettingsFromJSON).bandGainsDB[2], 6.0);
    const AppAudioState& beta = config.apps[1];
    EXPECT_EQ(std::tuple(beta.displayName, beta.volume, beta.muted, beta.favorite, beta.favoriteRank),
              std::tuple("Beta", 1.0, true, false, 3));
    const AppAudioState& alpha = config.apps[2];
    EXPECT_EQ(std::tuple(alpha.displayName, alpha.volume, alpha.favorite, alpha.favoriteRank),
              std::tuple("Alpha", 1.0, true, 0));
    const auto& slots = alpha.chain.slots;
    ASSERT_EQ(slots.size(), 4u);
    const auto eq = settingsOf(slots[0], kavore::eq10SettingsFromJSON);
    EXPECT_EQ(std::tuple(slots[0].kind, eq.bandGainsDB[0], eq.bandGainsDB[1], eq.preampDB),
              std::tuple(EffectKind::eq10, 12.0, -12.0, 0.0));
    EXPECT_EQ(settingsOf(slots[1], kavore::balancePanSettingsFromJSON).balance, 1.0);
    EXPECT_EQ(std::tuple(slots[2].kind, slots[2].nickname,
                         settingsOf(slots[2], kavore::noiseSuppressorSettingsFromJSON).amount),
              std::tuple(EffectKind::noiseSuppressor, "NS1 migration", 0.66));
    ASSERT_EQ(slots[3].kind, EffectKind::audioUnit);
    EXPECT_EQ(*slots[3].auComponent, (kavore::AUComponentKey{7, 2, 3, "Found", "Maker Co"}));
    EXPECT_TRUE(slots[3].audioUnitPreset && !slots[3].audioUnitPreset->empty());
}

TEST(SoundSourceImporterTest, ALostOrUnreadableMixerRaisesItsCase) {
    using Kind = SoundSourceImportError::Kind;
    const auto kindOf = [](std::vector<std::uint8_t> sources) {
        try {
            SoundSourceImporter::importData(sources, {}, TonaviConfig(), AutoDirectList(), {});
        } catch (const SoundSourceImportError& e) {
            return std::optional(e.kind());
        }
        return std::optional<Kind>();
    };
    const std::string garbage = "bplist00 not really";
    EXPECT_EQ(kindOf({garbage.begin(), garbage.end()}), Kind::invalidMixer);
    EXPECT_EQ(kindOf(bytes(array({}), false)), Kind::invalidMixer);
    EXPECT_EQ(kindOf(bytes(dict({{"modelItems", str("x")}}), true)), Kind::invalidMixer);
    EXPECT_EQ(kindOf(bytes(dict({{"modelItems", array({})}}), true)), std::nullopt);
}

} // namespace
} // namespace tonavi
