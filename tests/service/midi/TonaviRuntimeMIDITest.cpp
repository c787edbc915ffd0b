// MIDI in the runtime: each target becomes its ordinary request, buttons act once per press, and the
// mapping requests keep their file, the list and the mapper in step, or change none of them.

#include "core/wire/TonaviPayload.hpp"
#include "tests/service/FakeMIDISystem.hpp"
#include "tests/service/RuntimeTestSupport.hpp"

namespace tonavi::testing {
namespace {

using R = TonaviRequest;
using M = MIDIMapping;

TonaviConfig live(RuntimeHarness& h) {
    return h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().config(); });
}

// A trigger as the mapper posts it, then whatever it queued on serialQueue.
void trigger(RuntimeHarness& h, const MIDIMapping& mapping, double value) {
    h.runtime->midiQueue().sync([&] { h.runtime->handleMIDI(mapping, value); });
    h.runtime->serialQueue().sync([] {});
}

// What the hardware holds now: the mean of the device's volume elements.
double deviceVolume(RuntimeHarness& h, const std::string& uid) {
    const auto world = h.machine->world();
    double sum = 0;
    for (const auto& [element, volume] : world->deviceByUID(uid)->volumeElements)
        sum += volume;
    return sum / static_cast<double>(world->deviceByUID(uid)->volumeElements.size());
}

std::vector<MIDIMapping> listed(RuntimeHarness& h) {
    const TonaviReply reply = h.send(R::ListMIDIMappings{});
    EXPECT_TRUE(reply.ok && reply.payload) << reply.message;
    return reply.payload ? TonaviPayload::decodeMIDIMappings(*reply.payload) : std::vector<MIDIMapping>{};
}

TEST(MIDIRuntime, EachTargetBecomesItsRequest) {
    RuntimeHarness h;
    h.startReady();
    h.settleDiscovery();
    struct Step {
        const char* name;
        MIDIMapping mapping;
        double value;
        std::function<void()> check;
    };
    const std::vector<Step> steps = {
        {"a fader sets the app's volume", {"v", 0, 7, M::AppVolume{music}}, 0.25,
         [&] { EXPECT_DOUBLE_EQ(live(h).app(music)->volume, 0.25); }},
        {"64 is pressed: muted", {"m", 0, 8, M::AppMute{safari}}, 64 / 127.0,
         [&] { EXPECT_TRUE(live(h).app(safari)->muted); }},
        {"63 is released: the mute follows the button", {"m", 0, 8, M::AppMute{safari}}, 63 / 127.0,
         [&] { EXPECT_FALSE(live(h).app(safari)->muted); }},
        {"a device's volume", {"d", 0, 9, M::DeviceVolume{usb}}, 0.3,
         [&] { EXPECT_NEAR(deviceVolume(h, usb), 0.3, 1e-6); }},
        {"the output's volume", {"o", 0, 10, M::OutputVolume{}}, 0.4,
         [&] { EXPECT_NEAR(deviceVolume(h, speakers), 0.4, 1e-6); }},
        {"a fader on an app nobody knows fails quietly", {"x", 0, 7, M::AppVolume{"com.example.gone"}}, 0.5,
         [&] { EXPECT_DOUBLE_EQ(live(h).app(music)->volume, 0.25); }},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        trigger(h, step.mapping, step.value);
        step.check();
    }
}

TEST(MIDIRuntime, StageModeAndScenesActOncePerPress) {
    RuntimeHarness h;
    h.startReady();
    h.settleDiscovery();
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.2}).ok);
    ASSERT_TRUE(h.send(R::SaveConfig{"Evening"}).ok);
    ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.9}).ok);

    // One controller drives both: they keep a pressed state each, keyed by their target.
    const MIDIMapping stage{"s", 0, 20, M::StageMode{}};
    const MIDIMapping scene{"c", 0, 20, M::ConfigLoad{"Evening"}};
    struct Step {
        int value;
        bool stageAfter;
        bool sceneLoads;
    };
    const std::vector<Step> steps = {
        {127, true, true},   // pressed: both act
        {100, true, false},  // still held: nothing
        {127, true, false},  // still held
        {64, true, false},   // 0.5039 is still held
        {63, true, false},   // released
        {127, false, true},  // pressed again: stage goes off, the scene loads again
        {0, false, false},   // released
        {80, true, true},    // a fader passing the middle on its way up
    };
    int n = 0;
    for (const auto& step : steps) {
        SCOPED_TRACE("step " + std::to_string(n++));
        ASSERT_TRUE(h.send(R::SetAppVolume{music, 0.9}).ok);
        trigger(h, stage, step.value / 127.0);
        trigger(h, scene, step.value / 127.0);
        EXPECT_EQ(h.runtime->serialQueue().syncResult([&] { return h.runtime->engine().stageMode(); }),
                  step.stageAfter);
        EXPECT_DOUBLE_EQ(live(h).app(music)->volume, step.sceneLoads ? 0.2 : 0.9);
    }
}

TEST(MIDIRuntime, MappingsAreSavedListedAndHeardOrNotChangedAtAll) {
    RuntimeHarness h;
    auto midi = std::make_shared<FakeMIDISystem>();
    h.midi = midi;
    h.startReady();
    const MIDIMapping a{"a", 0, 7, M::AppVolume{music}}, b{"b", 2, 8, M::StageMode{}};
    const MIDIMapping a2{"a", 1, 9, M::AppMute{music}};

    ASSERT_TRUE(h.send(R::SetMIDIMapping{a}).ok);
    ASSERT_TRUE(h.send(R::SetMIDIMapping{b}).ok);
    ASSERT_TRUE(h.send(R::SetMIDIMapping{a2}).ok); // same id: replaced, and moved to the end
    // The list, the file and the mapper always agree.
    const auto expectEverywhere = [&](const std::vector<MIDIMapping>& expected) {
        EXPECT_EQ(listed(h), expected);
        EXPECT_EQ(h.store->loadMIDIMappings(), expected);
        EXPECT_EQ(h.runtime->midiMapper().mappings(), expected);
    };
    expectEverywhere({b, a2});

    h.failWrites = true;
    for (const auto& [reply, prefix] : {std::pair(h.send(R::SetMIDIMapping{a}), "could not save MIDI mapping: "),
                                        {h.send(R::RemoveMIDIMapping{"b"}), "could not remove MIDI mapping: "}})
        EXPECT_TRUE(!reply.ok && reply.message.starts_with(prefix)) << reply.message;
    expectEverywhere({b, a2});

    h.failWrites = false;
    EXPECT_TRUE(h.send(R::RemoveMIDIMapping{"b"}).ok);
    EXPECT_TRUE(h.send(R::RemoveMIDIMapping{"unknown"}).ok);
    expectEverywhere({a2});
}

TEST(MIDIRuntime, AControlChangeFromASourceMovesAnAppsVolume) {
    RuntimeHarness h;
    auto midi = std::make_shared<FakeMIDISystem>();
    midi->sources = {40};
    h.midi = midi;
    // Mappings on disk before the start are heard from the start. (Which messages fire which
    // mapping is the mapper's own test.)
    h.store->saveMIDIMappings({{"fader", 3, 7, M::AppVolume{music}}});
    h.startReady();
    midi->sendControlChange(2, 7, 64); // channel 3
    // Music has no row until the first message makes one.
    EXPECT_TRUE(waitUntil([&] {
        const TonaviConfig config = live(h);
        return config.app(music) && std::abs(config.app(music)->volume - 64 / 127.0) < 1e-9;
    }));

    // A learn request answers with the next Control Change, mapped or not, or says that none came.
    std::optional<TonaviReply> learned;
    const auto learn = [&] {
        learned.reset();
        h.runtime->handleAsync(R{R::LearnMIDIControl{2}}, [&](TonaviReply reply) { learned = std::move(reply); });
        h.runtime->midiQueue().sync([] {});
    };
    learn();
    midi->sendControlChange(4, 21, 1);
    h.runtime->midiQueue().sync([] {});
    ASSERT_TRUE(learned && learned->ok && learned->payload) << (learned ? learned->message : "no reply");
    EXPECT_EQ(std::string(learned->payload->begin(), learned->payload->end()), R"({"cc":21,"channel":5})");
    learn();
    h.advance(1.9);
    h.runtime->midiQueue().sync([] {});
    EXPECT_FALSE(learned);
    h.advance(0.1);
    h.runtime->midiQueue().sync([] {});
    ASSERT_TRUE(learned);
    EXPECT_EQ(learned->message, "no Control Change arrived within 2 s");
}

// The writes of `state.json` while a fader sweeps 0...127 over one second of the runtime's clock and
// in the second after, through MIDI or as the same stream of plain requests.
std::pair<int, int> sweepWrites(bool throughMIDI) {
    RuntimeHarness h;
    auto midi = std::make_shared<FakeMIDISystem>();
    midi->sources = {40};
    h.midi = midi;
    h.store->saveMIDIMappings({{"fader", 0, 7, M::AppVolume{music}}});
    h.startReady();
    EXPECT_TRUE(h.send(R::SetAppVolume{music, 0.5}).ok);
    h.advance(1.0); // the deferred save of that request
    const int before = h.stateWrites.load();
    for (unsigned value = 0; value < 128; ++value) {
        if (throughMIDI) {
            midi->sendControlChange(0, 7, value);
            h.runtime->midiQueue().sync([] {});
        } else {
            h.send(R::SetAppVolume{music, value / 127.0});
        }
        h.advance(1.0 / 128);
    }
    EXPECT_DOUBLE_EQ(live(h).app(music)->volume, 1.0);
    const int during = h.stateWrites.load() - before;
    h.advance(1.0);
    EXPECT_DOUBLE_EQ(h.onDisk().app(music)->volume, 1.0);
    return {during, h.stateWrites.load() - before - during};
}

TEST(MIDIRuntime, AFaderSweepWritesTheConfigurationAsThePlainRequestsDoOnceAfterTheLastMove) {
    const auto midi = sweepWrites(true), plain = sweepWrites(false);
    EXPECT_EQ(midi, plain) << "MIDI adds no write of its own";
    EXPECT_EQ(midi.second, 1) << "the deferred save, once, after the last move";
}

TEST(MIDIRuntime, WithoutAMIDIClientOrWithADamagedFileTheServiceRunsOnAndTheListStillWorks) {
    RuntimeHarness h;
    auto midi = std::make_shared<FakeMIDISystem>();
    midi->refuseClient = kMIDIServerStartErr;
    h.midi = midi;
    writeText(h.store->midiMappingsURL(), "[{\"id\": 3}"); // a damaged file starts with none
    h.startReady();
    EXPECT_TRUE(h.logged("tonavi: MIDI client failed (-10845)"));
    EXPECT_TRUE(listed(h).empty());
    EXPECT_TRUE(h.send(R::SetMIDIMapping{{"a", 0, 7, M::OutputVolume{}}}).ok);
    EXPECT_EQ(listed(h).size(), 1u);
    EXPECT_TRUE(h.send(R::Ping{}).ok);
    std::optional<TonaviReply> learned;
    h.runtime->handleAsync(R{R::LearnMIDIControl{2}}, [&](TonaviReply reply) { learned = std::move(reply); });
    EXPECT_EQ(learned.value_or(TonaviReply::success()).message, "no MIDI input to learn from: the MIDI client failed");
}

} // namespace
} // namespace tonavi::testing
