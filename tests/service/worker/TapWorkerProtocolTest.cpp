// The pipe protocol between the service and a tap worker, as bytes on the wire.

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEvent.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

TEST(TapWorkerProtocol, EnvelopesAreOneCompactLineAndOnlyWellFormedOnesDecode) {
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

    // Each line with the action it decodes to, or "" when it is refused.
    const std::pair<const char*, const char*> cases[] = {
        {R"({"action":"stop"})", "stop"},
        {R"({"action":"later","extra":1})", "later"}, // unknown actions are the reader's to ignore
        {R"({"action":"state","state":{"app":{}}})", ""},
        {R"({"action":7})", ""},
        {R"({"state":null})", ""},
        {R"(["stop"])", ""},
        {"{\"action\":\"st\xff\"}", ""}, // not UTF-8
        {"", ""},
        {"{\"action\":\"stop\"", ""},
    };
    for (const auto& [text, action] : cases)
        EXPECT_EQ(TapWorkerEnvelope::decode(text).value_or(TapWorkerEnvelope{}).action, action) << text;
}

TEST(TapWorkerProtocol, EventsCarryOnlyTheirPresentFieldsAndAreBelievedOnlyWhenWellTyped) {
    TapWorkerEvent ready;
    ready.kind = TapWorkerEvent::ready;
    ready.level = 0.25f;
    ready.sampleRate = 48000.0;
    ready.tapBufferFrames = 128;
    ready.outputBufferFrames = 512;
    ready.sourceDeviceUID = "BuiltInSpeakers";
    ready.targetDeviceUID = "";
    ready.lastIOAt = 1700000000.5;
    ready.lastRawAudioAt = 0.0;
    EXPECT_EQ(ready.line(),
              "{\"kind\":\"ready\",\"lastIOAt\":1700000000.5,\"lastRawAudioAt\":0.0,\"level\":0.25,"
              "\"outputBufferFrames\":512,\"sampleRate\":48000.0,\"sourceDeviceUID\":\"BuiltInSpeakers\","
              "\"tapBufferFrames\":128,\"targetDeviceUID\":\"\"}\n");
    EXPECT_EQ(TapWorkerEvent::decode(ready.line().substr(0, ready.line().size() - 1)), ready);
    TapWorkerEvent au;
    au.kind = TapWorkerEvent::auFailure;
    au.slotID = "slot-1";
    EXPECT_EQ(au.line(), "{\"kind\":\"au-failure\",\"slotID\":\"slot-1\"}\n");

    const auto metrics =
        TapWorkerEvent::decode(R"({"kind":"metrics","level":0.5,"targetDeviceUID":"","other":true})");
    ASSERT_TRUE(metrics.has_value());
    EXPECT_EQ(metrics->level, 0.5f);
    EXPECT_EQ(metrics->targetDeviceUID, std::string()) << "an empty UID is a value, not an absence";
    EXPECT_FALSE(metrics->sampleRate.has_value());
    for (const char* garbage :
         {R"({"kind":"metrics","level":"loud"})", R"({"kind":"metrics","tapBufferFrames":1.5})",
          R"({"kind":"failure","message":42})", R"({"level":0.5})", R"({"kind":null})", "ready",
          "{\"kind\":\"ready\"", "\x01\x02\x03"})
        EXPECT_FALSE(TapWorkerEvent::decode(garbage).has_value()) << garbage;
}
