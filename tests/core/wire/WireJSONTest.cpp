// The messages on the wire: the request sum type (literal documents, every case in its declared order,
// and the documents that must not decode), the status record, the reply around it and the payloads, and
// the refusal to write a number that is not finite.

#include "core/wire/TonaviPayload.hpp"
#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "core/wire/WireError.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>

using namespace tonavi;
using R = TonaviRequest;

namespace {

// The message of the error `f` raises, or "no error".
template <class Error = WireDecodingError, class F> std::string errorOf(F f) {
    try {
        f();
        return "no error";
    } catch (const Error& e) {
        return e.what();
    }
}

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

// Each literal is what a client sends; decoding must give the value and encoding the value must give the
// same text back (keys are written sorted).
TEST(TonaviRequestJSON, GoldenDocumentsDecodeAndEncodeExactly) {
    const std::tuple<const char*, TonaviRequest> cases[] = {
        {R"({"ping":{}})", R::ping()},
        {R"({"setAppVolume":{"bundleID":"com.apple.Safari","volume":0.5}})",
         {R::SetAppVolume{"com.apple.Safari", 0.5}}},
        {R"({"setFavorite":{"bundleID":"a","favorite":true,"rank":-3}})", {R::SetFavorite{"a", true, -3}}},
        {R"({"setSoloApps":{"bundleIDs":["a","b"]}})", {R::SetSoloApps{{"a", "b"}}}},
        // Above 2^53: must stay an integer with every bit.
        {R"({"setOutputDeviceOrdered":{"clientID":"ui","generation":18446744073709551615,"uid":"BuiltIn"}})",
         {R::SetOutputDeviceOrdered{"BuiltIn", "ui", std::numeric_limits<std::uint64_t>::max()}}},
        {R"({"setLane":{"_0":{"appBundleID":"com.spotify.client","deviceUID":"USB-1","id":"L1","locked":false}}})",
         {R::SetLane{{"L1", "com.spotify.client", "USB-1", false}}}},
        {R"({"setSystemMagicBoost":{"settings":{"amount":0.25,"enabled":true}}})",
         {R::SetSystemMagicBoost{kavore::LevelerSettings::unclamped(0.25, true)}}}};
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decodeRequest(text), value);
        EXPECT_EQ(encodeRequest(value), text);
    }
    // Whitespace and keys nobody asked for do not matter; a float with an integral value is an integer.
    EXPECT_EQ(decodeRequest(
                  R"( { "setFavorite" : { "rank": 2.0, "bundleID": "a", "favorite": false, "x": null } } )"),
              (TonaviRequest{R::SetFavorite{"a", false, 2}}));
}

// Built from the catalogue, not from the code: a misspelt or misordered case fails here.
TEST(TonaviRequestJSON, EveryCaseDecodesFromItsMinimalDocumentInDeclaredOrder) {
    // Every case in declared order, each in its smallest document, separated by white space.
    std::istringstream catalogue(R"(
{"importConfiguration":{"config":{},"autoDirect":{"bundleIDs":[],"updatedAt":0}}}
{"engageApp":{"bundleID":"a"}} {"disengageApp":{"bundleID":"a"}} {"unlockDirect":{"bundleID":"a"}}
{"relockDirect":{"bundleID":"a"}} {"setAppVolume":{"bundleID":"a","volume":1}}
{"setAppMuted":{"bundleID":"a","muted":false}} {"setSoloApps":{"bundleIDs":[]}}
{"setAppSolo":{"bundleID":"a","soloed":true}} {"setAppSteadyVolume":{"bundleID":"a","on":true}}
{"setAppBoost":{"bundleID":"a","multiplier":2}} {"setAppRedirect":{"bundleID":"a","deviceUID":"d"}}
{"setAppChain":{"bundleID":"a","chain":{"slots":[],"overdrive":{"multiplier":1},"bypassed":false}}}
{"setTimedMute":{"bundleID":"a","seconds":60}} {"cancelTimedMute":{"bundleID":"a"}}
{"bypassAppEffects":{"bundleID":"a","bypassed":true}} {"resetApp":{"bundleID":"a"}}
{"setAppVisible":{"bundleID":"a","visible":true}}
{"setFavorite":{"bundleID":"a","favorite":true,"rank":0}} {"setAppDisplayOrder":{"bundleIDs":["a"]}}
{"setPinnedEffects":{"bundleID":"a","slotIDs":[]}} {"setOutputDevice":{"uid":"d"}}
{"setOutputDeviceOrdered":{"uid":"d","clientID":"c","generation":1}} {"setInputDevice":{"uid":"d"}}
{"setSoundEffectsDevice":{"uid":"d"}} {"setOutputVolume":{"volume":0.5}}
{"setOutputMuted":{"muted":true}} {"setDeviceVolume":{"uid":"d","volume":0.5}}
{"setDeviceMuted":{"uid":"d","muted":true}} {"setDeviceSampleRate":{"uid":"d","rate":48000}}
{"setSystemChain":{"chain":{"slots":[],"overdrive":{"multiplier":1},"bypassed":true}}}
{"setSystemMagicBoost":{"settings":{"amount":0.5,"enabled":false}}} {"setGlobalListening":{"_0":{}}}
{"setDeviceSettings":{"_0":{"id":"d"}}} {"setDeviceHidden":{"uid":"d","hidden":true}}
{"setLocks":{"_0":{}}} {"setPreferredOrder":{"uids":["d"]}} {"setDeviceDisplayOrder":{"uids":[]}}
{"stageMode":{"on":true}} {"setManualDuck":{"on":false}} {"saveGroup":{"_0":{"id":"g"}}}
{"deleteGroup":{"id":"g"}} {"saveConfig":{"name":"n"}} {"loadConfig":{"name":"n"}}
{"deleteConfig":{"name":"n"}} {"renameConfig":{"oldName":"n","newName":"m"}}
{"setConfigIcon":{"name":"n","iconName":"star"}}
{"saveEQPreset":{"_0":{"id":"p","name":"P","icon":"i","builtin":false,"settings":{"bandGainsDB":[0,0,0,0,0,0,0,0,0,0],"preampDB":0,"enabled":true}}}}
{"deleteEQPreset":{"id":"p"}} {"setLane":{"_0":{"appBundleID":"a","deviceUID":"d"}}}
{"removeLane":{"id":"l"}} {"setDuckRule":{"_0":{"triggerBundleID":"a"}}} {"removeDuckRule":{"id":"r"}}
{"setFocusLink":{"_0":{"id":"f","focusName":"Work","configName":"c"}}} {"removeFocusLink":{"id":"f"}}
{"setSmartSettings":{"_0":{}}} {"setPreferredMics":{"uids":["m"]}}
{"setBluetoothMemory":{"_0":{"id":"b"}}} {"setOutputOnlyMode":{"deviceUID":"d","on":true}}
{"setMIDIMapping":{"_0":{"id":"m","channel":1,"cc":7,"target":{"stageMode":{}}}}}
{"removeMIDIMapping":{"id":"m"}} {"ping":{}} {"status":{}} {"shutdown":{}} {"diagnostics":{}}
{"listDevices":{}} {"listConfigs":{}} {"listEQPresets":{}} {"listInstalledApps":{}}
{"listRunningAudioApps":{}} {"scanAudioUnits":{}} {"listAudioUnits":{}} {"listBluetooth":{}}
{"listMIDIMappings":{}} {"learnMIDIControl":{"timeoutSeconds":5}})");
    std::size_t index = 0;
    for (std::string text; catalogue >> text; ++index) {
        const std::string name = text.substr(2, text.find('"', 2) - 2);
        SCOPED_TRACE(text);
        try {
            const TonaviRequest request = decodeRequest(text);
            EXPECT_EQ(request.value.index(), index);
            EXPECT_EQ(request.caseName(), name);
            EXPECT_EQ(decodeRequest(encodeRequest(request)), request);
            EXPECT_EQ(request.completesLater(),
                      name == "setOutputDevice" || name == "setOutputDeviceOrdered" || name == "loadConfig");
        } catch (const WireDecodingError& e) {
            ADD_FAILURE() << e.what();
        }
    }
    EXPECT_EQ(index, std::variant_size_v<TonaviRequest::Value>);
}

TEST(TonaviRequestJSON, BadDocumentsFailWithTheReason) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"ping":{},"status":{}})", "Invalid number of keys found, expected one."},
        {R"({"noSuchRequest":{}})", "Cannot initialize TonaviRequest from invalid case \"noSuchRequest\"."},
        {R"(["ping"])", "Expected to decode TonaviRequest from an object but found an array."},
        {R"({"ping":null})", "ping: expected an object, found null"},
        {"", "not valid JSON"},
        {R"({"setAppVolume":{"bundleID":"a"}})", "setAppVolume: missing required key \"volume\""},
        {R"({"setAppVolume":{"bundleID":"a","volume":"loud"}})",
         "setAppVolume: volume: expected a number, found a string"},
        {R"({"setFavorite":{"bundleID":"a","favorite":true,"rank":1.5}})",
         "setFavorite: rank: number 1.5 is not an integer"},
        {R"({"setSoloApps":{"bundleIDs":["a",2]}})",
         "setSoloApps: bundleIDs: [1]: expected a string, found an integer"},
        {R"({"setOutputDeviceOrdered":{"uid":"d","clientID":"c","generation":-1}})",
         "setOutputDeviceOrdered: generation: integer -1 is negative"},
        {R"({"setLane":{"_0":{"deviceUID":"d"}}})", "setLane: _0: "},
        {R"({"importConfiguration":{"config":{}}})",
         "importConfiguration: missing required key \"autoDirect\""}};
    for (const auto& [text, expected] : cases) {
        const std::string message = errorOf([&] { decodeRequest(text); });
        EXPECT_NE(message.find(expected), std::string::npos) << text << ": " << message;
    }
}

TEST(TonaviStatusJSON, FullStatusMatchesItsLiteralDocumentBothWays) {
    const TonaviStatus s = fullStatus();
    EXPECT_EQ(encodeStatus(s), fullStatusText);
    // Keys land in their own fields (a swap of two would still come back the same way).
    EXPECT_TRUE(s.apps.at(0).level == 0.1f && s.devices.at(0).lastUsedAt == 1700000000.5);
}

TEST(TonaviStatusJSON, StrictReadingNamesTheBadValue) {
    const std::tuple<std::string, const char*> cases[] = {
        {fullStatusWith(R"("apps":[)", R"("appz":[)"), "missing required key \"apps\""},
        {fullStatusWith(R"("transport":"virtual")", R"("transport":"firewire")"),
         "devices: [0]: transport: cannot initialize Transport from invalid value \"firewire\""},
        {fullStatusWith(R"("autoDuckCount":2)", R"("autoDuckCount":2.5)"),
         "smartLive: autoDuckCount: number 2.5 is not an integer"},
        {fullStatusWith(R"("level":0.25)", R"("level":1e300)"),
         "devices: [0]: level: number 1e+300 does not fit a 32-bit float"},
    };
    for (const auto& [text, expected] : cases) {
        const std::string message = errorOf([&] { decodeStatus(text); });
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
        {R"({"ok":true,"message":"","payload":"***"})", "TonaviReply: payload: not valid base64"},
        {R"({"ok":true,"message":"","status":{}})", "TonaviReply: status: missing required key"}};
    for (const auto& [doc, expectedError] : bad)
        EXPECT_NE(errorOf([&] { decodeReply(doc); }).find(expectedError), std::string::npos) << doc;
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
    EXPECT_EQ(
        errorOf([&] { TonaviPayload::decodeInstalledApps(Bytes(missingPath.begin(), missingPath.end())); }),
        "payload: [0]: missing required key \"path\"");
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
    for (const auto& [where, encode] : cases)
        EXPECT_NE(errorOf<WireEncodingError>(encode).find(std::string("not finite at ") + where),
                  std::string::npos)
            << where;
    TonaviReply unwritable = TonaviReply::success();
    unwritable.status = fullStatus();
    unwritable.status->sampleRate = nan;
    EXPECT_EQ(
        decodeReply(encodeReplyOrFailure(unwritable)),
        TonaviReply::failure("The reply could not be encoded: cannot encode a number that is not finite at "
                             "status.sampleRate"));
}
