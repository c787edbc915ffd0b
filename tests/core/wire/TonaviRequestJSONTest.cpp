// The request sum type on the wire: literal documents, every case in its declared order, and the
// documents that must not decode.

#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <gtest/gtest.h>

#include <limits>

using namespace tonavi;
using R = TonaviRequest;

namespace {
std::string decodeError(std::string_view json) {
    try {
        decodeRequest(json);
    } catch (const WireDecodingError& e) {
        return e.what();
    }
    return "decoded";
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
    const std::pair<const char*, const char*> catalogue[] = {
        {"importConfiguration", R"({"config":{},"autoDirect":{"bundleIDs":[],"updatedAt":0}})"},
        {"engageApp", R"({"bundleID":"a"})"},
        {"disengageApp", R"({"bundleID":"a"})"},
        {"unlockDirect", R"({"bundleID":"a"})"},
        {"relockDirect", R"({"bundleID":"a"})"},
        {"setAppVolume", R"({"bundleID":"a","volume":1})"},
        {"setAppMuted", R"({"bundleID":"a","muted":false})"},
        {"setSoloApps", R"({"bundleIDs":[]})"},
        {"setAppSolo", R"({"bundleID":"a","soloed":true})"},
        {"setAppSteadyVolume", R"({"bundleID":"a","on":true})"},
        {"setAppBoost", R"({"bundleID":"a","multiplier":2})"},
        {"setAppRedirect", R"({"bundleID":"a","deviceUID":"d"})"},
        {"setAppChain",
         R"({"bundleID":"a","chain":{"slots":[],"overdrive":{"multiplier":1},"bypassed":false}})"},
        {"setTimedMute", R"({"bundleID":"a","seconds":60})"},
        {"cancelTimedMute", R"({"bundleID":"a"})"},
        {"bypassAppEffects", R"({"bundleID":"a","bypassed":true})"},
        {"resetApp", R"({"bundleID":"a"})"},
        {"setAppVisible", R"({"bundleID":"a","visible":true})"},
        {"setFavorite", R"({"bundleID":"a","favorite":true,"rank":0})"},
        {"setAppDisplayOrder", R"({"bundleIDs":["a"]})"},
        {"setPinnedEffects", R"({"bundleID":"a","slotIDs":[]})"},
        {"setOutputDevice", R"({"uid":"d"})"},
        {"setOutputDeviceOrdered", R"({"uid":"d","clientID":"c","generation":1})"},
        {"setInputDevice", R"({"uid":"d"})"},
        {"setSoundEffectsDevice", R"({"uid":"d"})"},
        {"setOutputVolume", R"({"volume":0.5})"},
        {"setOutputMuted", R"({"muted":true})"},
        {"setDeviceVolume", R"({"uid":"d","volume":0.5})"},
        {"setDeviceMuted", R"({"uid":"d","muted":true})"},
        {"setDeviceSampleRate", R"({"uid":"d","rate":48000})"},
        {"setSystemChain", R"({"chain":{"slots":[],"overdrive":{"multiplier":1},"bypassed":true}})"},
        {"setSystemMagicBoost", R"({"settings":{"amount":0.5,"enabled":false}})"},
        {"setGlobalListening", R"({"_0":{}})"},
        {"setDeviceSettings", R"({"_0":{"id":"d"}})"},
        {"setDeviceHidden", R"({"uid":"d","hidden":true})"},
        {"setLocks", R"({"_0":{}})"},
        {"setPreferredOrder", R"({"uids":["d"]})"},
        {"setDeviceDisplayOrder", R"({"uids":[]})"},
        {"stageMode", R"({"on":true})"},
        {"setManualDuck", R"({"on":false})"},
        {"saveGroup", R"({"_0":{"id":"g"}})"},
        {"deleteGroup", R"({"id":"g"})"},
        {"saveConfig", R"({"name":"n"})"},
        {"loadConfig", R"({"name":"n"})"},
        {"deleteConfig", R"({"name":"n"})"},
        {"renameConfig", R"({"oldName":"n","newName":"m"})"},
        {"setConfigIcon", R"({"name":"n","iconName":"star"})"},
        {"saveEQPreset",
         R"({"_0":{"id":"p","name":"P","icon":"i","builtin":false,"settings":{"bandGainsDB":[0,0,0,0,0,0,0,0,0,0],"preampDB":0,"enabled":true}}})"},
        {"deleteEQPreset", R"({"id":"p"})"},
        {"setLane", R"({"_0":{"appBundleID":"a","deviceUID":"d"}})"},
        {"removeLane", R"({"id":"l"})"},
        {"setDuckRule", R"({"_0":{"triggerBundleID":"a"}})"},
        {"removeDuckRule", R"({"id":"r"})"},
        {"setFocusLink", R"({"_0":{"id":"f","focusName":"Work","configName":"c"}})"},
        {"removeFocusLink", R"({"id":"f"})"},
        {"setSmartSettings", R"({"_0":{}})"},
        {"setPreferredMics", R"({"uids":["m"]})"},
        {"setBluetoothMemory", R"({"_0":{"id":"b"}})"},
        {"setOutputOnlyMode", R"({"deviceUID":"d","on":true})"},
        {"setMIDIMapping", R"({"_0":{"id":"m","channel":1,"cc":7,"target":{"stageMode":{}}}})"},
        {"removeMIDIMapping", R"({"id":"m"})"}};
    // Then the cases without fields.
    const char* const nullary[] = {
        "ping",           "status",        "shutdown",          "diagnostics",          "listDevices",
        "listConfigs",    "listEQPresets", "listInstalledApps", "listRunningAudioApps", "scanAudioUnits",
        "listAudioUnits", "listBluetooth", "listMIDIMappings"};
    ASSERT_EQ(std::size(catalogue) + std::size(nullary), std::variant_size_v<TonaviRequest::Value>);
    for (std::size_t i = 0; i < std::variant_size_v<TonaviRequest::Value>; ++i) {
        const auto [name, fields] =
            i < std::size(catalogue)
                ? catalogue[i]
                : std::pair<const char*, const char*>{nullary[i - std::size(catalogue)], "{}"};
        SCOPED_TRACE(name);
        const std::string text = std::string("{\"") + name + "\":" + fields + "}";
        try {
            const TonaviRequest request = decodeRequest(text);
            EXPECT_EQ(request.value.index(), i);
            EXPECT_EQ(request.caseName(), name);
            EXPECT_EQ(decodeRequest(encodeRequest(request)), request);
            const std::string_view n = name;
            EXPECT_EQ(request.completesLater(),
                      n == "setOutputDevice" || n == "setOutputDeviceOrdered" || n == "loadConfig");
        } catch (const WireDecodingError& e) {
            ADD_FAILURE() << e.what();
        }
    }
}

TEST(TonaviRequestJSON, BadDocumentsFailWithTheReason) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"ping":{},"status":{}})", "Invalid number of keys found, expected one."},
        {R"({})", "Invalid number of keys found, expected one."},
        {R"({"noSuchRequest":{}})", "Cannot initialize TonaviRequest from invalid case \"noSuchRequest\"."},
        {R"({"SetAppVolume":{"bundleID":"a","volume":1}})", "invalid case \"SetAppVolume\""},
        {R"(["ping"])", "Expected to decode TonaviRequest from an object but found an array."},
        {R"({"ping":null})", "ping: expected an object, found null"},
        {R"({"ping":{})", "not valid JSON"},
        {"", "not valid JSON"},
        {R"({"setAppVolume":{"bundleID":"a"}})", "setAppVolume: missing required key \"volume\""},
        {R"({"setAppVolume":{"bundleID":"a","volume":"loud"}})",
         "setAppVolume: volume: expected a number, found a string"},
        {R"({"setAppVolume":{"bundleID":"a","volume":null}})",
         "setAppVolume: volume: expected a number, found null"},
        {R"({"setAppMuted":{"bundleID":"a","muted":1}})",
         "setAppMuted: muted: expected a boolean, found an integer"},
        {R"({"engageApp":{"bundleID":7}})", "engageApp: bundleID: expected a string, found an integer"},
        {R"({"setFavorite":{"bundleID":"a","favorite":true,"rank":1.5}})",
         "setFavorite: rank: number 1.5 is not an integer"},
        {R"({"setSoloApps":{"bundleIDs":["a",2]}})",
         "setSoloApps: bundleIDs: [1]: expected a string, found an integer"},
        {R"({"setSoloApps":{"bundleIDs":"a"}})", "setSoloApps: bundleIDs: expected an array, found a string"},
        {R"({"setOutputDeviceOrdered":{"uid":"d","clientID":"c","generation":-1}})",
         "setOutputDeviceOrdered: generation: integer -1 is negative"},
        {R"({"setOutputDeviceOrdered":{"uid":"d","clientID":"c","generation":1.5}})",
         "setOutputDeviceOrdered: generation: number 1.5 is not an unsigned integer"},
        {R"({"setLane":{"_0":5}})", "setLane: _0: expected an object, found an integer"},
        {R"({"setLane":{"lane":{"appBundleID":"a","deviceUID":"d"}}})",
         "setLane: missing required key \"_0\""},
        {R"({"setLane":{"_0":{"deviceUID":"d"}}})", "setLane: _0: "},
        {R"({"setAppChain":{"bundleID":"a","chain":{"slots":[],"bypassed":false}}})", "setAppChain: chain: "},
        {R"({"setMIDIMapping":{"_0":{"id":"m","channel":1,"cc":7,"target":{"warpDrive":{}}}}})",
         "setMIDIMapping: _0: "},
        {R"({"importConfiguration":{"config":{}}})",
         "importConfiguration: missing required key \"autoDirect\""}};
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        const std::string message = decodeError(text);
        EXPECT_NE(message, "decoded");
        EXPECT_NE(message.find(expected), std::string::npos) << message;
    }
}
