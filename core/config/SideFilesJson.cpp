// Codecs of the small files beside the configuration: rigs, quick configs, the auto-direct list
// and MIDI mappings. Unlike the configuration itself they read strictly.

#include "core/config/AutoDirectList.hpp"
#include "core/config/ConfigJson.hpp"
#include "core/config/MIDIMapping.hpp"
#include "core/config/QuickConfig.hpp"
#include "core/config/RigFile.hpp"

namespace tonavi {

using namespace ConfigJson;

// MARK: RigFile

void to_json(json& j, const RigFile& v) {
    j = json::object();
    j["formatVersion"] = v.formatVersion;
    if (v.tonavi)
        j["tonavi"] = *v.tonavi;
    if (v.kavore)
        j["kavore"] = json::parse(*v.kavore);
}

void from_json(const json& j, RigFile& v) {
    requireObject(j, "RigFile");
    RigFile out;
    out.formatVersion = readRequired<std::int64_t>(j, "formatVersion");
    readStrictOptional(j, "tonavi", out.tonavi);
    const auto kavore = j.find("kavore");
    if (kavore != j.end() && !kavore->is_null())
        out.kavore = kavore->dump();
    v = std::move(out);
}

// MARK: QuickConfig

void to_json(json& j, const QuickConfig& v) {
    j = json::object();
    j["name"] = v.name;
    j["iconName"] = v.iconName;
    j["shortcutKey"] = v.shortcutKey;
    j["savedAt"] = v.savedAt;
    j["rig"] = v.rig;
    putIfPresent(j, "outputDeviceUID", v.outputDeviceUID);
    putIfPresent(j, "outputDeviceName", v.outputDeviceName);
    putIfPresent(j, "outputVolume", v.outputVolume);
    putIfPresent(j, "inputDeviceUID", v.inputDeviceUID);
    putIfPresent(j, "inputDeviceName", v.inputDeviceName);
}

void from_json(const json& j, QuickConfig& v) {
    requireObject(j, "QuickConfig");
    QuickConfig out;
    out.name = readRequired<std::string>(j, "name");
    out.iconName = readRequired<std::string>(j, "iconName");
    out.shortcutKey = readRequired<std::string>(j, "shortcutKey");
    out.savedAt = readRequired<double>(j, "savedAt");
    out.rig = readRequired<RigFile>(j, "rig");
    readStrictOptional(j, "outputDeviceUID", out.outputDeviceUID);
    readStrictOptional(j, "outputDeviceName", out.outputDeviceName);
    readStrictOptional(j, "outputVolume", out.outputVolume);
    readStrictOptional(j, "inputDeviceUID", out.inputDeviceUID);
    readStrictOptional(j, "inputDeviceName", out.inputDeviceName);
    v = std::move(out);
}

// MARK: AutoDirectList

void to_json(json& j, const AutoDirectList& v) {
    j = json{{"bundleIDs", v.bundleIDs}, {"updatedAt", v.updatedAt}};
}

void from_json(const json& j, AutoDirectList& v) {
    requireObject(j, "AutoDirectList");
    AutoDirectList out;
    out.bundleIDs = readRequired<std::vector<std::string>>(j, "bundleIDs");
    out.updatedAt = readRequired<double>(j, "updatedAt");
    v = std::move(out);
}

// MARK: MIDIMapping

namespace {

struct TargetEncoder {
    json operator()(const MIDIMapping::AppVolume& t) const {
        return {{"appVolume", {{"bundleID", t.bundleID}}}};
    }
    json operator()(const MIDIMapping::AppMute& t) const { return {{"appMute", {{"bundleID", t.bundleID}}}}; }
    json operator()(const MIDIMapping::DeviceVolume& t) const { return {{"deviceVolume", {{"uid", t.uid}}}}; }
    json operator()(const MIDIMapping::ConfigLoad& t) const { return {{"configLoad", {{"name", t.name}}}}; }
    json operator()(const MIDIMapping::StageMode&) const { return {{"stageMode", json::object()}}; }
    json operator()(const MIDIMapping::OutputVolume&) const { return {{"outputVolume", json::object()}}; }
};

MIDIMapping::Target readTarget(const json& j) {
    requireObject(j, "MIDIMapping.Target");
    if (j.size() != 1)
        fail("MIDIMapping.Target: expected exactly one case");
    const auto item = j.items().begin();
    const std::string name = item.key();
    const json& payload = item.value();
    requireObject(payload, "MIDIMapping.Target payload");
    if (name == "appVolume")
        return MIDIMapping::AppVolume{readRequired<std::string>(payload, "bundleID")};
    if (name == "appMute")
        return MIDIMapping::AppMute{readRequired<std::string>(payload, "bundleID")};
    if (name == "deviceVolume")
        return MIDIMapping::DeviceVolume{readRequired<std::string>(payload, "uid")};
    if (name == "configLoad")
        return MIDIMapping::ConfigLoad{readRequired<std::string>(payload, "name")};
    if (name == "stageMode")
        return MIDIMapping::StageMode{};
    if (name == "outputVolume")
        return MIDIMapping::OutputVolume{};
    fail("MIDIMapping.Target: unknown case \"" + name + "\"");
}

} // namespace

void to_json(json& j, const MIDIMapping& v) {
    j = json{{"id", v.id},
             {"channel", v.channel},
             {"cc", v.cc},
             {"target", std::visit(TargetEncoder{}, v.target)}};
}

void from_json(const json& j, MIDIMapping& v) {
    requireObject(j, "MIDIMapping");
    MIDIMapping out;
    out.id = readRequired<std::string>(j, "id");
    out.channel = readRequired<std::int64_t>(j, "channel");
    out.cc = readRequired<std::int64_t>(j, "cc");
    const auto target = j.find("target");
    if (target == j.end())
        fail("MIDIMapping: missing required key \"target\"");
    out.target = readTarget(*target);
    v = std::move(out);
}

} // namespace tonavi
