// The smart automations in the runtime on the simulated laptop: which apps they tap, at what gain
// the engine then renders them, and the trail of onsets. Music plays from the start; Safari plays
// through its helper when a test starts it.

#include "tests/service/RuntimeTestSupport.hpp"

#include <cmath>
#include <vector>

namespace tonavi::testing {
namespace {

const std::string zoom = "us.zoom.xos";

class SmartTickRuntimeTest : public ::testing::Test {
  protected:
    void play(const std::string& who, bool on) {
        h.edit([&](SimWorld& w) { return w.setPlaying(who, on, std::nullopt); });
    }
    void turnOn(const SmartSettings& settings) {
        ASSERT_TRUE(h.send(TonaviRequest::SetSmartSettings{settings}).ok);
    }
    void turnOn(const std::function<void(SmartSettings&)>& change) {
        SmartSettings settings = h.runtime->engine().config().smart;
        change(settings);
        turnOn(settings);
    }
    // Two seconds on: fresh snapshots, each followed by a pass, then the timer's own pass.
    void pass() {
        h.wall.store(h.wall.load() + 2.0);
        h.settleDiscovery();
        h.advance(2.0);
    }
    // The app comes to the front; the activation alone brings a pass forward, 60 ms later.
    void activate(const std::string& id) {
        h.edit([&](SimWorld& w) { return w.activate(id); });
        h.runtime->serialQueue().sync([] {}); // the activation handler, which nudges
        h.runtime->serialQueue().sync([] {}); // the nudge, which schedules the pass
        h.advance(0.06);
    }
    bool tapped(const std::string& id) { return h.runtime->engine().hasTap(id); }
    // Taps come and go on the tap-lifecycle queue.
    bool waitTapped(const std::string& id, bool on) {
        return waitUntil([&] { return tapped(id) == on; });
    }
    // The gain the engine renders the app with once its smoother has settled, from a steady input.
    double renderedGain(const std::string& id, float input = 0.5f) {
        std::vector<float> buffer(1024);
        for (int cycle = 0; cycle < 40; ++cycle) {
            std::fill(buffer.begin(), buffer.end(), input);
            h.runtime->engine().advanceDucking(512);
            h.runtime->engine().render(id, buffer);
        }
        return buffer.back() / input;
    }
    SmartLiveStatus live() { return h.send(TonaviRequest::Status{}).status->smartLive.value(); }

    RuntimeHarness h;
};

TEST_F(SmartTickRuntimeTest, FollowMeLowersEveryoneButTheAppInFrontAndRestoresThemWhenFocusMoves) {
    play("com.apple.WebKit.GPU", true);
    h.startReady();
    turnOn({.followMe = true, .followMeBackgroundPercent = 25});
    pass();
    // Safari is in front from the start; then the activations alone bring each pass forward. The
    // hero is held under control too, at unity, so that it plays on while the others are lowered.
    for (const auto& [front, background] : {std::pair{safari, music}, {music, safari}, {safari, music}}) {
        SCOPED_TRACE("front: " + front);
        if (h.runtime->smartState().followMeHeroLast != front)
            activate(front);
        EXPECT_EQ(h.runtime->smartState().followMeHeroLast, front);
        ASSERT_TRUE(waitTapped(background, true));
        ASSERT_TRUE(waitTapped(front, true));
        EXPECT_NEAR(renderedGain(background), 0.25, 1e-3);
        EXPECT_NEAR(renderedGain(front), 1.0, 1e-6);
    }
    EXPECT_EQ(live().followMeHeroName, "Safari");

    turnOn(SmartSettings{});
    EXPECT_TRUE(waitTapped(music, false)) << "untouched apps are released with the feature";
    EXPECT_TRUE(waitTapped(safari, false));
}

// (Which apps the duck spares, music tools and the app in the call among them, is the policy's test:
// here the one eased app of the three shows the settings reach it.)
TEST_F(SmartTickRuntimeTest, AutoDuckEasesOtherPlayersWhileAMicIsLiveButSparesTheLeftAlone) {
    play("com.apple.WebKit.GPU", true);
    h.edit([](SimWorld& w) { return w.setCapturing(zoom, false); });
    h.startReady();
    turnOn({.autoDuck = true, .autoDuckDepthDB = -12, .leaveAloneBundleIDs = {safari}});
    pass();
    EXPECT_FALSE(tapped(music)) << "nothing is ducked while no microphone is live";

    h.edit([](SimWorld& w) { return w.setCapturing(zoom, true); });
    pass();
    ASSERT_TRUE(waitTapped(music, true));
    EXPECT_NEAR(renderedGain(music), std::pow(10.0, -12.0 / 20.0), 1e-3);
    EXPECT_FALSE(tapped(safari)) << "left alone by the user";
    EXPECT_EQ(live().autoDuckCount, 1);
    EXPECT_TRUE(h.logged("tonavi: auto-duck ON, mic live in us.zoom.xos; easing 1 app(s)"));

    h.edit([](SimWorld& w) { return w.setCapturing(zoom, false); });
    pass();
    EXPECT_TRUE(waitTapped(music, false)) << "the ducked app recovers on its direct path";
}

TEST_F(SmartTickRuntimeTest, LoudnessGuardHoldsTheCeilingOnHeadphonesOnlyAndPreferredMicsPersist) {
    h.startReady();
    turnOn({.loudnessGuard = true, .loudnessGuardCeilingDBFS = -6});
    pass();
    EXPECT_FALSE(tapped(music)) << "the speakers are not protected";
    EXPECT_FALSE(live().loudnessGuardActive);

    h.edit([](SimWorld& w) { return w.setDefault(SimDefaultRole::output, usb); });
    pass();
    pass();
    ASSERT_TRUE(waitTapped(music, true));
    EXPECT_NEAR(renderedGain(music, 0.9f) * 0.9, std::pow(10.0, -6.0 / 20.0), 0.01); // the ceiling
    EXPECT_TRUE(live().loudnessGuardActive);
    EXPECT_EQ(live().loudnessGuardOutputName, "USB Headphones");

    // The preferred microphones persist, at most eight; mic follow starts from the mic in use.
    const std::vector<std::string> nine{"a", "b", "c", "d", "e", "f", "g", "h", "i"};
    ASSERT_TRUE(h.send(TonaviRequest::SetPreferredMics{nine}).ok);
    EXPECT_EQ(h.onDisk().smart.preferredMicUIDs, std::vector<std::string>(nine.begin(), nine.begin() + 8));

    turnOn([](SmartSettings& s) { s.micFollow = true; });
    const std::vector<std::string> expected{builtInMic, "a", "b", "c", "d", "e", "f", "g"};
    EXPECT_EQ(h.onDisk().smart.preferredMicUIDs, expected);
    EXPECT_TRUE(h.onDisk().smart.micFollow);
    turnOn([](SmartSettings& s) { s.micFollow = true; });
    EXPECT_EQ(h.onDisk().smart.preferredMicUIDs, expected) << "only the switch turning on takes the mic";
}

// (Output-only earbuds are never taken: the policy's own test.)
TEST(SmartTickRuntime, MicFollowTakesNewEarbudsUnlessTheyAreForOutputOnly) {
    for (const bool outputOnly : {false, true}) {
        SCOPED_TRACE(outputOnly ? "output-only earbuds" : "earbuds");
        RuntimeHarness h;
        TonaviConfig config = TonaviConfig::firstRunDefaults();
        config.smart.micFollow = true;
        if (outputOnly)
            config.bluetooth.push_back({.id = budsOut, .outputOnlyMode = true});
        h.store->save(config);
        h.edit([](SimWorld& w) { return w.unplug(budsIn) + w.unplug(budsOut); });
        h.startReady();
        h.advance(4.0);
        EXPECT_EQ(h.machine->world()->defaultInputUID, builtInMic);

        h.edit([](SimWorld& w) { return w.replug(budsOut) + w.replug(budsIn); });
        h.advance(2.0);
        EXPECT_EQ(h.machine->world()->defaultInputUID, outputOnly ? builtInMic : budsIn);
    }
}

} // namespace
} // namespace tonavi::testing
