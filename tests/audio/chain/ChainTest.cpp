#include "audio/chain/RenderChain.hpp"
#include "audio/effects/BalancePanSettingsJSON.hpp"
#include "audio/effects/EQ10.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "audio/effects/NoiseSuppressorSettingsJSON.hpp"
#include "audio/effects/OneKnobCompressor.hpp"
#include "audio/headphone/HeadphoneProfileJSON.hpp"
#include "audio/primitives/LatencyMath.hpp"

#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace kavore;
using namespace kavore::test;
using nlohmann::json;

namespace {

std::vector<float> testSignal(std::size_t n = 512) {
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<float>(0.6 * std::sin(0.05 * double(i)) + 0.05 * ((i % 2) ? 1 : -1));
    return v;
}

const EQ10Settings boost({9, 6, 3, 0, 0, 0, 0, 0, 0, 0}, 6.0, true);
const CompressorSettings squeeze(1.0, CompressorVoicing::voice, true);

ChainSettings chainOf(std::vector<EffectSlot> slots, double overdrive = 1.0) {
    return {std::move(slots), OverdriveSettings::unclamped(overdrive), false};
}

std::vector<float> render(RenderChain& chain, std::size_t n = 512) {
    auto buf = testSignal(n);
    chain.process(buf);
    return buf;
}

EffectSlot flat(const std::string& id, bool bypassed = false) {
    return slot(id, EffectKind::eq10, toJSON(EQ10Settings::flat()), bypassed);
}

// Every field of a chain, with both optionals on the second slot; bytes travel as base64.
const char* const goldenChain = R"({
  "slots": [
    {"id": "EQ", "kind": "eq10", "nickname": "", "bypassed": true, "settingsJSON": "e30="},
    {"id": "AU-1", "kind": "audioUnit", "nickname": "Reverb", "bypassed": false, "settingsJSON": "e30=",
     "auComponent": {"type": 1635083896, "subtype": 1920361010, "manufacturer": 1634758764,
                     "name": "Reverb", "manufacturerName": "Apple"},
     "audioUnitPreset": "AP8Q"}],
  "overdrive": {"multiplier": 3.0},
  "bypassed": true})";

ChainSettings goldenChainSettings() {
    ChainSettings chain;
    EffectSlot au = rawSlot("AU-1", EffectKind::audioUnit, "{}");
    au.nickname = "Reverb";
    au.auComponent =
        AUComponentKey{fourCharCode("aufx"), fourCharCode("rvb2"), fourCharCode("appl"), "Reverb", "Apple"};
    au.audioUnitPreset = std::vector<std::uint8_t>{0x00, 0xFF, 0x10};
    chain.slots = {rawSlot("EQ", EffectKind::eq10, "{}", true), au};
    chain.overdrive = OverdriveSettings(3.0);
    chain.bypassed = true;
    return chain;
}

} // namespace

TEST(RenderChain, RebuildsOnlyWhenSettingsOrRateChangeAndBypassesLeaveAudioAlone) {
    auto settings = chainOf(
        {slot("eq", EffectKind::eq10, toJSON(boost)), slot("comp", EffectKind::compressor, toJSON(squeeze))});
    RenderChain chain, reference;
    chain.configure(settings, 48000);
    reference.configure(settings, 48000);
    render(chain), render(reference);
    chain.configure(settings, 48000);
    EXPECT_EQ(chain.rebuildCount(), 1);
    // Filter and envelope state lived on: the output continues exactly like an untouched chain.
    EXPECT_EQ(render(chain), render(reference));

    chain.configure(settings, 44100);
    EXPECT_EQ(chain.rebuildCount(), 2) << "a changed rate alone rebuilds";
    settings.slots[1].nickname = "renamed";
    EXPECT_FALSE(chain.matches(settings, 44100)) << "any change of any slot rebuilds";

    // Bypassed slots build nothing; a bypassed chain builds its processors and leaves the audio alone.
    settings =
        chainOf({slot("a", EffectKind::eq10, toJSON(boost)), slot("b", EffectKind::eq10, toJSON(boost), true),
                 slot("c", EffectKind::compressor, toJSON(squeeze))},
                2.0);
    settings.bypassed = true;
    RenderChain bypassing;
    bypassing.configure(settings, 48000);
    EXPECT_EQ(bypassing.slotIDs(), (std::vector<std::string>{"a", "b", "c"}));
    ASSERT_EQ(bypassing.processors().size(), 2u) << "a bypassed chain still builds its active processors";
    EXPECT_EQ(render(bypassing), testSignal()) << "and leaves the buffer alone, overdrive included";
}

TEST(RenderChain, CorruptSettingsGiveNeutralEffects) {
    const struct {
        EffectKind kind;
        std::string bytes;
        bool neutral = true;
    } cases[] = {
        {EffectKind::eq10, "not json"},
        {EffectKind::compressor, R"({"amount":1,"enabled":true})"},
        {EffectKind::magicBoost, R"({"amount":"1","enabled":true})"},
        {EffectKind::headphoneEQ, R"({"id":"x","name":"y","preampDB":-6})"},
        {EffectKind::balancePan, R"({"balance":1})"},
        {EffectKind::noiseSuppressor, "[1,2]"},
        // Well formed, the same keys do change the audio: the fallback, not a silent processor.
        {EffectKind::balancePan, R"({"balance":1,"enabled":true})", false},
    };
    for (const auto& [kind, bytes, neutral] : cases) {
        RenderChain chain;
        ASSERT_NO_THROW(chain.configure(chainOf({rawSlot("s", kind, bytes)}), 48000));
        ASSERT_EQ(chain.processors().size(), 1u);
        EXPECT_EQ(render(chain) == testSignal(), neutral) << bytes;
        EXPECT_EQ(chain.latencySamples(), 0);
    }
}

TEST(RenderChain, ProcessorsRunInSlotOrderAndOverdriveLast) {
    RenderChain chain;
    chain.configure(chainOf({slot("eq", EffectKind::eq10, toJSON(boost)),
                             slot("comp", EffectKind::compressor, toJSON(squeeze))}),
                    48000);
    const auto out = render(chain);
    EQ10 eq;
    eq.configure(boost, 48000);
    OneKnobCompressor comp;
    comp.configure(squeeze, 48000);
    auto inOrder = testSignal(), reversed = testSignal();
    eq.process(inOrder), comp.process(inOrder);
    eq.reset(), comp.reset();
    comp.process(reversed), eq.process(reversed);
    EXPECT_EQ(out, inOrder);
    EXPECT_NE(out, reversed);

    // A +12 dB preamp drives the signal to about 2.4; only an overdrive stage after the EQ brings
    // it back under the ceiling, and only beyond a multiplier of 1.001.
    const auto hot = [](double overdrive) {
        return chainOf({slot("eq", EffectKind::eq10, toJSON(EQ10Settings({}, 12.0, true)))}, overdrive);
    };
    chain.configure(hot(1.001), 48000);
    EXPECT_GT(std::ranges::max(render(chain)), 2.0f);
    chain.configure(hot(1.0011), 48000);
    EXPECT_LE(std::ranges::max(render(chain)), static_cast<float>(OverdriveLimiter::ceilingLinear));
}

TEST(RenderChain, AudioUnitSlotsGoThroughTheWeakBridge) {
    auto chain = std::make_unique<RenderChain>();
    chain->configure(chainOf({rawSlot("au-1", EffectKind::audioUnit, ""),
                              slot("lev", EffectKind::magicBoost, toJSON(LevelerSettings(0.5, true)))}),
                     48000);
    const auto through = [](const RenderChain::Processor& p) {
        auto buf = testSignal(64);
        p.process(buf);
        return buf;
    };
    EXPECT_EQ(through(chain->processors()[0]), testSignal(64)) << "no renderer: audio passes through";
    EXPECT_EQ(chain->latencySamples(), 96) << "the leveler's 2 ms look-ahead";

    std::vector<std::string> rendered;
    chain->setExternalAURender([&](const std::string& id, std::span<float> b) {
        rendered.push_back(id);
        for (float& s : b)
            s *= 0.5f;
    });
    chain->setExternalAULatencySamples([](const std::string& id) { return id == "au-1" ? 512 : -1; });
    EXPECT_FLOAT_EQ(through(chain->processors()[0])[5], testSignal(64)[5] * 0.5f);
    EXPECT_EQ(rendered, std::vector<std::string>{"au-1"});
    EXPECT_EQ(chain->latencySamples(), 512 + 96);
    EXPECT_EQ(std::make_pair(LatencyMath::ms(608, 48000), LatencyMath::ms(480, 0)),
              std::make_pair(608.0 / 48.0, 0.0));

    // A closure that outlives its chain does nothing and reports no latency.
    const RenderChain::Processor orphan = chain->processors()[0];
    chain.reset();
    EXPECT_EQ(through(orphan), testSignal(64));
    EXPECT_EQ(orphan.latency(), 0);
    EXPECT_EQ(rendered.size(), 1u);
}

TEST(ChainSettingsJSON, WritesAndReadsTheGoldenDocument) {
    EXPECT_EQ(toJSON(goldenChainSettings()), json::parse(goldenChain));
    EXPECT_EQ(chainSettingsFromJSON(json::parse(goldenChain)), goldenChainSettings());
    // The stored multiplier is kept as written, beyond the range code would clamp to.
    json nine = json::parse(goldenChain);
    nine["overdrive"]["multiplier"] = 9.0;
    EXPECT_EQ(chainSettingsFromJSON(nine).overdrive.multiplier, 9.0);
}

// One bad field anywhere fails the whole chain: a required key missing, or a value of the wrong kind.
TEST(ChainSettingsJSON, ReadsStrictly) {
    const auto golden = json::parse(goldenChain);
    for (const char* pointer : {"/slots/0/id", "/slots/0/settingsJSON", "/slots", "/overdrive", "/bypassed",
                                "/slots/1/auComponent/name"}) {
        json j = golden;
        j.at(json::json_pointer(pointer).parent_pointer()).erase(json::json_pointer(pointer).back());
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << pointer;
    }
    const auto wrongKinds = json::parse(R"({"/slots/0/kind": "reverb", "/slots/0/settingsJSON": "!",
        "/slots/0/bypassed": "false", "/overdrive": {}, "/slots/1/auComponent/type": 4294967296})");
    for (const auto& [pointer, value] : wrongKinds.items()) {
        json j = golden;
        j[json::json_pointer(pointer)] = value;
        EXPECT_THROW(chainSettingsFromJSON(j), JSONDecodeError) << pointer << " = " << value;
    }
    EXPECT_THROW(chainSettingsFromJSON(json::array()), JSONDecodeError);
}

TEST(ChainSettings, NeutralWhenNothingCanChangeTheAudioAndMovesStopAtTheEnds) {
    const std::vector<EffectSlot> off = {flat("a", true), flat("b", true)};
    const struct {
        std::vector<EffectSlot> slots;
        double overdrive;
        bool bypassed, neutral;
    } cases[] = {{off, 1.0, false, true},    {off, 2.0, false, false},
                 {off, 2.0, true, true},     {{}, 1.001, false, true},
                 {{}, 1.0011, false, false}, {{flat("a", true), flat("b")}, 1.0, false, false}};
    for (const auto& c : cases) {
        const ChainSettings chain{c.slots, OverdriveSettings::unclamped(c.overdrive), c.bypassed};
        EXPECT_EQ(chain.isNeutral(), c.neutral) << c.slots.size() << " " << c.overdrive << " " << c.bypassed;
    }

    // A move swaps a slot with its neighbour and stops at the ends.
    ChainSettings chain;
    chain.slots = {flat("a"), flat("b"), flat("c")};
    const std::vector<std::tuple<const char*, bool, const char*>> moves = {
        {"a", true, "abc"}, {"c", false, "abc"}, {"zz", true, "abc"},
        {"b", true, "bac"}, {"b", false, "abc"}, {"b", false, "acb"}};
    for (const auto& [id, up, expected] : moves) {
        chain.move(id, up);
        std::string order;
        for (const auto& s : chain.slots)
            order += s.id;
        EXPECT_EQ(order, expected) << id << (up ? " up" : " down");
    }
}

TEST(EffectSettingsJSON, EqualiserIsNormalisedAndAmountsAreClampedInCodeButKeptFromJSON) {
    const auto twelve = eq10SettingsFromJSON(
        json{{"bandGainsDB", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}}, {"preampDB", -30}, {"enabled", true}});
    EXPECT_EQ(twelve, EQ10Settings({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, -12.0, true));
    const auto three =
        eq10SettingsFromJSON(json{{"bandGainsDB", {20, -20, 1.5}}, {"preampDB", 0}, {"enabled", false}});
    EXPECT_EQ(three, EQ10Settings({12, -12, 1.5}, 0.0, false));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(EQ10Settings({nan, std::numeric_limits<double>::infinity()}, nan, true),
              EQ10Settings({}, 0.0, true));

    EXPECT_TRUE(EQ10Settings({0.005, -0.005}, 0.0, true).isNeutral());
    EXPECT_FALSE(EQ10Settings({0.0, 0.01}, 0.0, true).isNeutral());
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {1}}, {"enabled", true}}), JSONDecodeError);
    EXPECT_THROW(eq10SettingsFromJSON(json{{"bandGainsDB", {"1"}}, {"preampDB", 0}, {"enabled", true}}),
                 JSONDecodeError);

    // Other amounts: reading keeps the stored value; building in code clamps. Every key is required.
    EXPECT_EQ(std::make_tuple(CompressorSettings(1.5, CompressorVoicing::voice, true).amount,
                              LevelerSettings(-0.5, true).amount, OverdriveSettings(7.0).multiplier,
                              OverdriveSettings(0.2).multiplier, BalancePanSettings(3.0, true).balance,
                              NoiseSuppressorSettings(-2.5, true).amount),
              std::make_tuple(1.0, 0.0, 4.0, 1.0, 1.0, 0.0));
    EXPECT_EQ(compressorSettingsFromJSON(json{{"amount", 1.5}, {"voicing", "podcast"}, {"enabled", true}}),
              CompressorSettings::unclamped(1.5, CompressorVoicing::podcast, true));
    EXPECT_EQ(balancePanSettingsFromJSON(json::parse(R"({"balance": 3, "enabled": true})")),
              BalancePanSettings::unclamped(3.0, true));
    EXPECT_EQ(noiseSuppressorSettingsFromJSON(json::parse(R"({"amount": -2.5, "enabled": false})")),
              NoiseSuppressorSettings::unclamped(-2.5, false));
    EXPECT_EQ(
        std::make_pair(toJSON(BalancePanSettings(-0.4, true)), toJSON(NoiseSuppressorSettings(0.25, true))),
        std::make_pair(json::parse(R"({"balance": -0.4, "enabled": true})"),
                       json::parse(R"({"amount": 0.25, "enabled": true})")));
    for (const char* bad :
         {R"({"amount": 1, "voicing": "opera", "enabled": true})", R"({"amount": 1, "enabled": true})"})
        EXPECT_THROW(compressorSettingsFromJSON(json::parse(bad)), JSONDecodeError) << bad;
    EXPECT_THROW(levelerSettingsFromJSON(json{{"amount", 0.5}}), JSONDecodeError);
    EXPECT_THROW(balancePanSettingsFromJSON(json::parse(R"({"balance": "0.5", "enabled": true})")),
                 JSONDecodeError);
    EXPECT_THROW(noiseSuppressorSettingsFromJSON(json::parse(R"({"enabled": true})")), JSONDecodeError);
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

    for (const char* pointer : {"/id", "/preampDB", "/filters", "/filters/1/kind", "/filters/1/q"}) {
        json bad = golden;
        const json::json_pointer at(pointer);
        bad.at(at.parent_pointer()).erase(at.back());
        EXPECT_THROW(headphoneProfileFromJSON(bad), JSONDecodeError) << pointer;
    }
    json unknownKind = golden;
    unknownKind["filters"][0]["kind"] = "bandPass";
    EXPECT_THROW(headphoneProfileFromJSON(unknownKind), JSONDecodeError);
}
