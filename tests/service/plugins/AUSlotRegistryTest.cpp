// The hosted effect's chunked render and its failure rules, the registry's reconciliation with its
// token check, and the LV2 host on the project's own test plug-ins.

#include "platform/PluginHost.hpp"
#include "service/plugins/AUCatalogue.hpp"
#include "service/plugins/AUSlotRegistry.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TestPlugins.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <semaphore>

namespace tonavi {
namespace {

// Doubles its input; fails with status 7 on the render call numbered `failOn` (1-based).
struct FakeUnit final : PluginUnit {
    PluginDescription d{"urn:fake", "Fake", "Maker", {}, {}};
    std::vector<std::uint32_t> chunks;
    int failOn = 0;
    int restores = 0;
    float factor = 2.0f;
    std::atomic<int>* destroyed = nullptr;
    ~FakeUnit() override {
        if (destroyed)
            ++*destroyed;
    }
    const PluginDescription& description() const override { return d; }
    bool prepare(std::uint32_t, std::string&) override { return true; }
    void release() override {}
    bool restoreState(std::span<const std::uint8_t> bytes, std::string& error) override {
        error = "the preset is not an LV2 state";
        return bytes.size() == 1 && ++restores;
    }
    std::vector<std::uint8_t> saveState() override { return {}; }
    bool setParameter(std::string_view, float value) override { return factor = value, true; }
    int render(const float* const in[2], float* const out[2], std::uint32_t frames) override {
        chunks.push_back(frames);
        if (static_cast<int>(chunks.size()) == failOn)
            return 7;
        for (int c = 0; c < 2; ++c)
            for (std::uint32_t f = 0; f < frames; ++f)
                out[c][f] = in[c][f] * factor;
        return 0;
    }
    double latencyFrames() const override { return 63.6; }
};

TEST(AUHostedEffect, ChunksFailuresAndOneReport) {
    for (const int failOn : {0, 2}) {
        AUHostedEffect effect("S");
        auto owned = std::make_unique<FakeUnit>();
        FakeUnit* unit = owned.get();
        unit->failOn = failOn;
        std::vector<std::string> reports;
        effect.setOnFailure([&](const std::string& m) { reports.push_back(m); });
        ASSERT_TRUE(effect.attach(std::move(owned), 48000, 4096, std::nullopt, {}));
        EXPECT_EQ(effect.latencySamples(), 64);
        std::vector<float> buffer(2 * 10000, 1.0f);
        effect.process(buffer);
        effect.process(buffer);
        effect.deliverFailure();
        effect.deliverFailure();
        if (failOn == 0) {
            EXPECT_EQ(unit->chunks, (std::vector<std::uint32_t>{4096, 4096, 1808, 4096, 4096, 1808}));
            EXPECT_EQ(buffer.back(), 4.0f);
            EXPECT_TRUE(reports.empty());
        } else {
            // The first chunk processed, the rest as it came; a failed unit is not called again.
            EXPECT_EQ(unit->chunks, (std::vector<std::uint32_t>{4096, 4096}));
            EXPECT_EQ(buffer[2 * 4096 - 1], 2.0f);
            EXPECT_EQ(buffer[2 * 4096], 1.0f);
            EXPECT_EQ(reports, std::vector<std::string>{"render error 7"});
            EXPECT_EQ(effect.latencySamples(), 0);
        }
    }
    // A preset that is not a state of the plug-in fails the attach with the reason.
    AUHostedEffect bad("B");
    EXPECT_FALSE(bad.attach(std::make_unique<FakeUnit>(), 48000, 4096, std::vector<std::uint8_t>{1, 2}, {}));
    EXPECT_EQ(bad.failureMessage(), "format/allocate: the preset is not an LV2 state");
}

TEST(AUHostedEffect, ALateCompletionAfterTheTimeOutChangesNothing) {
    std::binary_semaphore release{0}, finished{0};
    std::atomic<int> destroyed = 0;
    const auto result = AUHostedEffect::instantiate(
        [&]() -> AUHostedEffect::Instantiation {
            release.acquire();
            auto unit = std::make_unique<FakeUnit>();
            unit->destroyed = &destroyed;
            finished.release();
            return {std::move(unit), std::nullopt};
        },
        std::chrono::milliseconds(20));
    EXPECT_FALSE(result.unit);
    EXPECT_EQ(result.error, "instantiation timed out after 0s");
    release.release();
    finished.acquire();
    // The late unit is dropped by the loader, not handed to anyone.
    EXPECT_TRUE(test::eventually([&] { return destroyed.load() == 1; }, std::chrono::seconds(5)));
}

using Failures = std::vector<std::pair<std::string, std::string>>; // slot ID, message

kavore::ChainSettings chainOf(std::vector<kavore::EffectSlot> slots, bool bypassed = false) {
    kavore::ChainSettings chain;
    chain.slots = std::move(slots);
    chain.bypassed = bypassed;
    return chain;
}

kavore::EffectSlot slot(const std::string& id, std::uint32_t subtype, std::optional<std::vector<std::uint8_t>> preset = {},
                        const std::string& settings = "") {
    kavore::EffectSlot s;
    s.id = id;
    s.kind = kavore::EffectKind::audioUnit;
    s.auComponent = kavore::AUComponentKey{kavore::fourCharCode("aufx"), subtype, 1, "Fx", "Maker"};
    s.audioUnitPreset = std::move(preset);
    s.settingsJSON.assign(settings.begin(), settings.end());
    return s;
}

TEST(AUSlotRegistry, ReconcilesWantedSlotsWithLiveHosts) {
    std::vector<std::function<void()>> queued;
    std::vector<std::uint32_t> loaded;
    std::vector<FakeUnit*> units;
    auto registry = AUSlotRegistry::make(
        [&](const kavore::AUComponentKey& key, double) -> AUHostedEffect::Instantiation {
            loaded.push_back(key.subtype);
            if (key.subtype == 99)
                return {nullptr, "no installed plug-in has the component"};
            auto unit = std::make_unique<FakeUnit>();
            units.push_back(unit.get());
            return {std::move(unit), std::nullopt};
        },
        [&](std::function<void()> work) { queued.push_back(std::move(work)); });
    Failures failures;
    registry->setOnFailure([&](const std::string& id, const std::string& m) { failures.emplace_back(id, m); });
    const auto runQueued = [&] {
        auto work = std::move(queued);
        queued.clear();
        for (auto& w : work)
            w();
    };

    // Loading: no host until the load lands.
    registry->sync({chainOf({slot("A", 1)})}, 48000);
    EXPECT_FALSE(registry->host("A"));
    runQueued();
    ASSERT_TRUE(registry->host("A"));

    // A changed preset and parameters apply live, without a reload.
    registry->sync({chainOf({slot("A", 1, std::vector<std::uint8_t>{5}, R"({"parameters":{"g":3}})")})}, 48000);
    EXPECT_TRUE(queued.empty());
    EXPECT_EQ(std::tuple(units.back()->restores, units.back()->factor), std::tuple(1, 3.0f));

    // A changed key reloads; a slot removed during its load never gets a host.
    registry->sync({chainOf({slot("A", 2), slot("B", 3)})}, 48000);
    EXPECT_FALSE(registry->host("A"));
    registry->sync({chainOf({slot("A", 2)})}, 48000);
    runQueued();
    EXPECT_TRUE(registry->host("A"));
    EXPECT_FALSE(registry->host("B"));
    EXPECT_EQ(loaded, (std::vector<std::uint32_t>{1, 2, 3}));

    // A bypassed chain detaches its hosts; an unknown component is reported once, with no host.
    registry->sync({chainOf({slot("A", 2)}, true), chainOf({slot("C", 99)})}, 48000);
    EXPECT_FALSE(registry->host("A"));
    runQueued();
    EXPECT_FALSE(registry->host("C"));
    EXPECT_EQ(failures, (Failures{{"C", "no installed plug-in has the component"}}));
}

// Through the platform's host: a plug-in that never returns from instantiate costs its slot only.
TEST(AUSlotRegistry, APluginStuckInInstantiateTimesOutWhileAnotherGoesLive) {
    test::useTestPlugins();
    const auto slotFor = [](const std::string& id, const std::string& name) {
        for (const auto& d : PluginHost::shared()->plugins())
            if (d.uri == "http://tonavi.test/plugins/" + name) {
                kavore::EffectSlot s = slot(id, 0);
                s.auComponent = AUCatalogue::componentKey(d);
                return s;
            }
        return kavore::EffectSlot{};
    };
    auto registry = AUSlotRegistry::make(AUSlotRegistry::platformInstantiate(PluginHost::shared(), 0.3));
    Failures failures;
    std::mutex failuresLock;
    registry->setOnFailure([&](const std::string& id, const std::string& m) {
        std::lock_guard guard(failuresLock);
        failures.emplace_back(id, m);
    });
    registry->sync({chainOf({slotFor("S", "stuck"), slotFor("G", "gain")})}, 48000);
    EXPECT_TRUE(test::eventually([&] { return registry->host("G") != nullptr; }, std::chrono::seconds(5)));
    EXPECT_TRUE(test::eventually(
        [&] {
            std::lock_guard guard(failuresLock);
            return failures == Failures{{"S", "instantiation timed out after 0s"}};
        },
        std::chrono::seconds(5)));
    EXPECT_FALSE(registry->host("S"));
}

// The project's own LV2 bundle through the platform host.
std::unique_ptr<PluginUnit> load(const std::string& name, std::string& error) {
    test::useTestPlugins();
    return PluginHost::shared()->instantiate("http://tonavi.test/plugins/" + name, 48000, error);
}

TEST(LV2PluginHost, MonoPerChannelStateLatencyAndRefusals) {
    std::string error;
    auto gain = load("gain", error);
    ASSERT_TRUE(gain) << error;
    ASSERT_TRUE(gain->prepare(4096, error));
    ASSERT_TRUE(gain->setParameter("gain", 3.0f));
    EXPECT_FALSE(gain->setParameter("nope", 1.0f));
    float inL[4] = {1, 1, 1, 1}, inR[4] = {0.5f, 0.5f, 0.5f, 0.5f}, outL[4], outR[4];
    const float* in[2] = {inL, inR};
    float* out[2] = {outL, outR};
    ASSERT_EQ(gain->render(in, out, 4), 0);
    EXPECT_EQ(std::tuple(outL[3], outR[3]), std::tuple(3.0f, 1.5f)); // one instance per channel

    // The saved state carries the parameter and the plug-in's own trim (halved here) into a fresh
    // unit; another plug-in's state is refused.
    const auto saved = gain->saveState();
    std::string turtle(saved.begin(), saved.end());
    const auto trim = turtle.find("\"1.0\"^^xsd:float");
    ASSERT_NE(trim, std::string::npos) << turtle;
    turtle.replace(trim, 5, "\"0.5\"");
    const std::vector<std::uint8_t> state(turtle.begin(), turtle.end());
    auto restored = load("gain", error);
    ASSERT_TRUE(restored && restored->restoreState(state, error)) << error;
    restored->prepare(4096, error);
    restored->render(in, out, 4);
    EXPECT_EQ(std::tuple(outL[3], outR[3]), std::tuple(1.5f, 0.75f));
    auto delay = load("delay", error);
    ASSERT_TRUE(delay);
    EXPECT_FALSE(delay->restoreState(state, error));
    EXPECT_EQ(error, "the preset is the state of another plug-in");
    const std::string plist = "<?xml version=\"1.0\"?><plist><dict/></plist>";
    EXPECT_FALSE(delay->restoreState(std::vector<std::uint8_t>(plist.begin(), plist.end()), error));

    delay->prepare(4096, error);
    delay->render(in, out, 4);
    EXPECT_EQ(delay->latencyFrames(), 64.0);

    auto poison = load("poison", error);
    poison->prepare(4096, error);
    poison->setParameter("poison", 1.0f);
    EXPECT_EQ(poison->render(in, out, 4), PluginUnit::nonFiniteOutput);

    EXPECT_FALSE(load("surround", error));
    EXPECT_NE(error.find("cannot run on stereo: it has 3 audio inputs and 3 audio outputs"), std::string::npos)
        << error;
    const auto all = PluginHost::shared()->plugins();
    EXPECT_TRUE(std::ranges::any_of(all, [](const PluginDescription& d) {
        return d.name == "Test Surround" && !d.stereoProblem.empty();
    }));
}

} // namespace
} // namespace tonavi
