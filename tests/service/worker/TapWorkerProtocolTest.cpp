// The pipe protocol between the service and a tap worker, as bytes on the wire.

#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEvent.hpp"

#include <gtest/gtest.h>

using namespace tonavi;

namespace {

TapWorkerState sampleState() {
    TapWorkerState state;
    state.app = AppAudioState("com.example.player");
    state.app.volume = 0.5;
    state.currentDefaultOutputUID = "BuiltInSpeakers";
    state.followMeHero = "com.example.hero";
    state.autoDuckApps = {"com.example.voice"};
    state.activeDuckTriggers = {"com.example.voice"};
    return state;
}

} // namespace

TEST(TapWorkerProtocol, EnvelopesEncodeAsOneCompactLine) {
    EXPECT_EQ(TapWorkerEnvelope::makeStop().line(), "{\"action\":\"stop\"}\n");

    const std::string line = TapWorkerEnvelope::makeState(sampleState()).line();
    ASSERT_EQ(line.back(), '\n');
    EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line, whatever the state holds";
    EXPECT_EQ(line.rfind("{\"action\":\"state\",\"state\":{\"activeDuckTriggers\":[\"com.example.voice\"],"
                         "\"app\":{",
                         0),
              0u)
        << line;
    for (const char* fragment :
         {"\"autoDuckApps\":[\"com.example.voice\"]", "\"currentDefaultOutputUID\":\"BuiltInSpeakers\"",
          "\"followMeHero\":\"com.example.hero\"", "\"id\":\"com.example.player\"", "\"volume\":0.5",
          "\"sampleRate\":48000.0", "\"stageMode\":false", "\"duckRules\":[]"})
        EXPECT_NE(line.find(fragment), std::string::npos) << fragment;
}

TEST(TapWorkerProtocol, EnvelopeLinesDecode) {
    std::string line = TapWorkerEnvelope::makeState(sampleState()).line();
    line.pop_back();
    auto decoded = TapWorkerEnvelope::decode(line);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->action, "state");
    ASSERT_TRUE(decoded->state.has_value());
    EXPECT_EQ(*decoded->state, sampleState());

    struct Case {
        const char* line;
        bool decodes;
        const char* action;
    };
    const Case cases[] = {
        {R"({"action":"stop"})", true, "stop"},
        {R"({"action":"later","extra":1})", true, "later"}, // unknown actions are the reader's to ignore
        {R"({"action":"state","state":{"app":{}}})", false, ""},
        {R"({"action":7})", false, ""},
        {R"({"state":null})", false, ""},
        {R"(["stop"])", false, ""},
        {"{\"action\":\"st\xff\"}", false, ""}, // not UTF-8
        {"", false, ""},
        {"{\"action\":\"stop\"", false, ""},
    };
    for (const auto& c : cases) {
        auto envelope = TapWorkerEnvelope::decode(c.line);
        EXPECT_EQ(envelope.has_value(), c.decodes) << c.line;
        if (envelope) {
            EXPECT_EQ(envelope->action, c.action);
        }
    }
}

TEST(TapWorkerProtocol, EventsEncodeOnlyTheirPresentFields) {
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
    EXPECT_EQ(TapWorkerEvent::failed("missing initial render state").line(),
              "{\"kind\":\"failure\",\"message\":\"missing initial render state\"}\n");
    TapWorkerEvent au;
    au.kind = TapWorkerEvent::auFailure;
    au.slotID = "slot-1";
    EXPECT_EQ(au.line(), "{\"kind\":\"au-failure\",\"slotID\":\"slot-1\"}\n");
}

TEST(TapWorkerProtocol, EventLinesFromAWorkerAreBelievedOnlyWhenWellTyped) {
    auto metrics = TapWorkerEvent::decode(
        R"({"kind":"metrics","level":0.5,"tapBufferFrames":256,"lastIOAt":12.5,"targetDeviceUID":"","other":true})");
    ASSERT_TRUE(metrics.has_value());
    EXPECT_EQ(metrics->kind, "metrics");
    EXPECT_EQ(metrics->level, 0.5f);
    EXPECT_EQ(metrics->tapBufferFrames, 256);
    EXPECT_EQ(metrics->lastIOAt, 12.5);
    EXPECT_EQ(metrics->targetDeviceUID, std::string()) << "an empty UID is a value, not an absence";
    EXPECT_FALSE(metrics->sampleRate.has_value());
    EXPECT_FALSE(metrics->message.has_value());

    for (const char* garbage : {
             R"({"kind":"metrics","level":"loud"})",
             R"({"kind":"metrics","tapBufferFrames":1.5})",
             R"({"kind":"failure","message":42})",
             R"({"level":0.5})",
             R"({"kind":null})",
             "ready",
             "{\"kind\":\"ready\"",
             "\x01\x02\x03",
         })
        EXPECT_FALSE(TapWorkerEvent::decode(garbage).has_value()) << garbage;
}
