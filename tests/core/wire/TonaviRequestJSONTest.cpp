// The request sum type on the wire: literal documents, every case in its declared order, and the
// documents that must not decode.

#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

using namespace tonavi;
using R = TonaviRequest;

namespace {
std::string decodeError(std::string_view json) {
    try {
        decodeRequest(json);
        return "decoded";
    } catch (const WireDecodingError& e) {
        return e.what();
    }
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
        {R"({"setOutputDeviceOrdered":{"clientID":"ui","generation":9007199254740993,"uid":"x"}})",
         {R::SetOutputDeviceOrdered{"x", "ui", 9007199254740993ull}}},
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
{"listMIDIMappings":{}})");
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
        {R"({"SetAppVolume":{"bundleID":"a","volume":1}})", "invalid case \"SetAppVolume\""},
        {R"(["ping"])", "Expected to decode TonaviRequest from an object but found an array."},
        {R"({"ping":null})", "ping: expected an object, found null"},
        {"", "not valid JSON"},
        {R"({"setAppVolume":{"bundleID":"a"}})", "setAppVolume: missing required key \"volume\""},
        {R"({"setAppVolume":{"bundleID":"a","volume":"loud"}})",
         "setAppVolume: volume: expected a number, found a string"},
        {R"({"engageApp":{"bundleID":7}})", "engageApp: bundleID: expected a string, found an integer"},
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
        const std::string message = decodeError(text);
        EXPECT_NE(message.find(expected), std::string::npos) << text << ": " << message;
    }
}
