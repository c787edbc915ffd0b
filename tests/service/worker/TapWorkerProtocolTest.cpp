// The service's half of the pipe protocol to a tap worker, as bytes on the wire. (What a worker writes
// back, and what either side makes of garbage, is tried against real and scripted workers.)

#include "service/worker/TapWorkerEnvelope.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(TapWorkerProtocol, EnvelopesAreOneCompactLineThatDecodesToTheSameState) {
    TapWorkerState state;
    state.app = AppAudioState("com.example.player");
    state.app.volume = 0.5;
    state.currentDefaultOutputUID = "BuiltInSpeakers";
    state.followMeHero = "com.example.hero";
    state.autoDuckApps = state.activeDuckTriggers = {"com.example.voice"};

    EXPECT_EQ(TapWorkerEnvelope::makeStop().line(), "{\"action\":\"stop\"}\n");
    const std::string line = TapWorkerEnvelope::makeState(state).line();
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line, whatever the state holds";
    EXPECT_EQ(
        line.rfind(
            "{\"action\":\"state\",\"state\":{\"activeDuckTriggers\":[\"com.example.voice\"],\"app\":{", 0),
        0u)
        << line;
    const auto decoded = TapWorkerEnvelope::decode(line.substr(0, line.size() - 1));
    ASSERT_TRUE(decoded && decoded->state);
    EXPECT_EQ(decoded->action, "state");
    EXPECT_EQ(*decoded->state, state);
}
