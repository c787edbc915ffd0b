// The status record, the reply around it and the payloads: literal documents both ways, the strict
// reading of every record, and the refusal to write a number that is not finite.

#include "core/wire/TonaviPayload.hpp"
#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

using namespace tonavi;

namespace {

// Every field of every nested record set, optional ones included.
const char* const fullStatusText =
    R"({"anyEngaged":true,"apps":[{"addedLatencyMS":10.5,"addedLatencySamples":504,"audioCapable":true,)"
    R"("boost":2.0,"controlIssue":"tap failed","directLocked":false,"displayName":"Safari","displayRank":0,)"
    R"("engaged":true,"hasRecentAudioSignal":true,"id":"com.apple.Safari","isCapturingAudio":false,)"
    R"("isPlayingAudio":true,"isRunning":true,"isUserApp":true,"level":0.1,"muted":false,"pid":412,)"
    R"("redirectUID":"USB-1","secondsSinceAudio":1.5,"soloed":false,"steadyVolume":false,"tapOutputUID":"USB-1",)"
    R"("tapSourceUID":"BuiltIn","userControlled":true,"volume":0.5}],"bufferFrames":512,)"
    R"("defaultInputUID":"Mic","defaultOutputUID":"BT-9","devices":[{"batteryPercent":80,"channels":2,)"
    R"("codec":"AAC","connectionQuality":"good","displayRank":3,"hasVolume":true,"hidden":false,"id":"BT-9",)"
    R"("isDefaultInput":false,"isDefaultOutput":true,"isInput":false,"isOutput":true,"lastUsedAt":1700000000.5,)"
    R"("level":0.25,"muted":false,"name":"Headphones","nickname":"Cans","sampleRate":48000.0,)"
    R"("transport":"virtual","useCount":12,"volume":0.75}],"engagedCount":1,)"
    R"("health":[{"at":1700000001.0,"detail":"no aggregate","id":"E1","kind":"tapFailed"}],"manualDuckOn":true,)"
    R"("outputMuted":false,"outputVolume":0.75,"outputVolumeIsSoft":true,)"
    R"("recentOnsets":[{"frontmostAppID":"com.apple.mail","id":"O1","kind":"alert","label":"Ping",)"
    R"("startedAt":1700000002.25}],"sampleRate":48000.0,"smartLive":{"autoDuckActive":true,"autoDuckCount":2,)"
    R"("autoDuckMicNames":["Mic A","Mic B"],"followMeHeroID":"com.spotify.client","followMeHeroName":"Spotify",)"
    R"("loudnessGuardActive":true,"loudnessGuardOutputName":"Speakers","micFollowName":"Mic A"},)"
    R"("soloAppIDs":["com.apple.Safari"],"soloUnmutedAppIDs":[],"soundEffectsUID":"BuiltIn","stageMode":true})";

TonaviStatus fullStatus() {
    return decodeStatus(fullStatusText);
}

std::string statusError(const std::string& text) {
    try {
        decodeStatus(text);
        return "decoded";
    } catch (const WireDecodingError& e) {
        return e.what();
    }
}

// The literal status with one piece of text replaced.
std::string fullStatusWith(const std::string& from, const std::string& to) {
    std::string text = fullStatusText;
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string bytesText(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

} // namespace

TEST(TonaviStatusJSON, FullStatusMatchesItsLiteralDocumentBothWays) {
    const TonaviStatus s = fullStatus();
    EXPECT_EQ(encodeStatus(s), fullStatusText);
    // Keys land in their own fields (a swap of two would still come back the same way).
    EXPECT_EQ(s.apps.at(0).level, 0.1f);
    EXPECT_EQ(s.devices.at(0).lastUsedAt, 1700000000.5);
    EXPECT_EQ(s.bufferFrames, 512);
}

TEST(TonaviStatusJSON, StrictReadingNamesTheBadValue) {
    const std::tuple<std::string, const char*> cases[] = {
        {fullStatusWith(R"("apps":[)", R"("appz":[)"), "missing required key \"apps\""},
        {fullStatusWith(R"("transport":"virtual")", R"("transport":"firewire")"),
         "devices: [0]: transport: cannot initialize Transport from invalid value \"firewire\""},
        {fullStatusWith(R"("kind":"alert")", R"("kind":"beep")"),
         "recentOnsets: [0]: kind: cannot initialize Kind from invalid value \"beep\""},
        {fullStatusWith(R"("autoDuckCount":2)", R"("autoDuckCount":2.5)"),
         "smartLive: autoDuckCount: number 2.5 is not an integer"},
        {fullStatusWith(R"("level":0.25)", R"("level":1e300)"),
         "devices: [0]: level: number 1e+300 does not fit a 32-bit float"},
        {"[]", "expected an object, found an array"}};
    for (const auto& [text, expected] : cases) {
        const std::string message = statusError(text);
        EXPECT_NE(message.find(expected), std::string::npos)
            << "expected: " << expected << "\ngot: " << message;
    }
}

TEST(TonaviReplyJSON, GoldenReplies) {
    // Plain success: exactly "ok" and "message", the message present although empty.
    EXPECT_EQ(encodeReply(TonaviReply::success()), R"({"message":"","ok":true})");
    TonaviReply full{false, "Unknown device.", TonaviStatus{}, Bytes{'[', '1', ']'}};
    full.status->engagedCount = 2;
    const std::string text = encodeReply(full);
    const std::string expected =
        R"({"message":"Unknown device.","ok":false,"payload":"WzFd","status":{"anyEngaged":false,"apps":[],)"
        R"("bufferFrames":0,"defaultInputUID":"","defaultOutputUID":"","devices":[],"engagedCount":2,"health":[],)"
        R"("manualDuckOn":false,"outputMuted":false,"outputVolume":0.0,"outputVolumeIsSoft":false,"sampleRate":0.0,)"
        R"("soundEffectsUID":"","stageMode":false}})";
    EXPECT_EQ(text, expected);
    EXPECT_EQ(decodeReply(expected), full);
    EXPECT_EQ(decodeReply(R"({"ok":true,"message":"tonavi 1.0","status":null,"payload":null})"),
              TonaviReply::success("tonavi 1.0"));

    const std::pair<const char*, const char*> bad[] = {
        {R"({"ok":true})", "TonaviReply: missing required key \"message\""},
        {R"({"ok":"yes","message":""})", "TonaviReply: ok: expected a boolean, found a string"},
        {R"({"ok":true,"message":"","payload":"***"})", "TonaviReply: payload: not valid base64"},
        {R"({"ok":true,"message":"","status":{}})", "TonaviReply: status: missing required key"}};
    for (const auto& [doc, expectedError] : bad) {
        try {
            decodeReply(doc);
            ADD_FAILURE() << "decoded: " << doc;
        } catch (const WireDecodingError& e) {
            EXPECT_NE(std::string(e.what()).find(expectedError), std::string::npos) << e.what();
        }
    }
}

TEST(TonaviPayloadJSON, GoldenListsAndStrictReading) {
    EXPECT_EQ(bytesText(TonaviPayload::encode(std::vector<std::string>{"Day", "Night"})),
              R"(["Day","Night"])");
    const std::vector<RunningApp> running = {{"com.apple.Music", 77, true, 0.5},
                                             {"com.apple.TV", 78, false, std::nullopt}};
    const char* runningText =
        R"([{"bundleID":"com.apple.Music","isRunning":true,"pid":77,"secondsSinceAudio":0.5},)"
        R"({"bundleID":"com.apple.TV","isRunning":false,"pid":78}])";
    EXPECT_EQ(bytesText(TonaviPayload::encode(running)), runningText);
    const std::string runningString(runningText);
    EXPECT_EQ(TonaviPayload::decodeRunningApps(Bytes(runningString.begin(), runningString.end())), running);

    const std::vector<InstalledApp> installed = {
        {"com.apple.Music", "Music", "/Applications/Music.app", true}};
    EXPECT_EQ(
        bytesText(TonaviPayload::encode(installed)),
        R"([{"audioCapable":true,"id":"com.apple.Music","name":"Music","path":"/Applications/Music.app"}])");
    const std::vector<AudioUnitInfo> units = {{"U1",
                                               {kavore::fourCharCode("aufx"), kavore::fourCharCode("dely"),
                                                kavore::fourCharCode("appl"), "Delay", "Apple"},
                                               true,
                                               5}};
    EXPECT_EQ(
        bytesText(TonaviPayload::encode(units)),
        R"([{"favorite":true,"id":"U1","key":{"manufacturer":1634758764,"manufacturerName":"Apple","name":"Delay",)"
        R"("subtype":1684368505,"type":1635083896},"lastScanAt":5.0}])");

    const std::string missingPath = R"([{"audioCapable":true,"id":"a","name":"A"}])";
    try {
        TonaviPayload::decodeInstalledApps(Bytes(missingPath.begin(), missingPath.end()));
        ADD_FAILURE() << "decoded an app without a path";
    } catch (const WireDecodingError& e) {
        EXPECT_STREQ(e.what(), "payload: [0]: missing required key \"path\"");
    }
}

TEST(WireEncoding, NonFiniteNumberAnywhereFailsInsteadOfWritingNull) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    TonaviStatus level = fullStatus(), lastUsed = fullStatus();
    level.apps[0].level = std::numeric_limits<float>::infinity();
    lastUsed.devices[0].lastUsedAt = -nan;
    Diagnostics diagnostics;
    diagnostics.config.softMasterPercent = nan;
    const std::tuple<const char*, std::function<void()>> cases[] = {
        {"apps[0].level", [&] { encodeStatus(level); }},
        {"devices[0].lastUsedAt", [&] { encodeStatus(lastUsed); }},
        {"config.softMasterPercent", [&] { TonaviPayload::encode(diagnostics); }},
        {"[0].secondsSinceAudio", [&] {
             TonaviPayload::encode(std::vector<RunningApp>{{"a", 1, true, nan}});
         }}};
    for (const auto& [where, encode] : cases) {
        try {
            encode();
            ADD_FAILURE() << "encoded a non-finite number at " << where;
        } catch (const WireEncodingError& e) {
            EXPECT_NE(std::string(e.what()).find(std::string("not finite at ") + where), std::string::npos)
                << e.what();
        }
    }
    TonaviReply unwritable = TonaviReply::success();
    unwritable.status = fullStatus();
    unwritable.status->sampleRate = nan;
    EXPECT_EQ(
        decodeReply(encodeReplyOrFailure(unwritable)),
        TonaviReply::failure("The reply could not be encoded: cannot encode a number that is not finite at "
                             "status.sampleRate"));
}
