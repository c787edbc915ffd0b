#pragma once
// One MIDI controller binding: a Control Change number on a channel (0: any) drives a target.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <variant>

namespace tonavi {

struct MIDIMapping {
    struct AppVolume {
        std::string bundleID;
        bool operator==(const AppVolume&) const = default;
    };
    struct AppMute {
        std::string bundleID;
        bool operator==(const AppMute&) const = default;
    };
    struct DeviceVolume {
        std::string uid;
        bool operator==(const DeviceVolume&) const = default;
    };
    struct ConfigLoad {
        std::string name;
        bool operator==(const ConfigLoad&) const = default;
    };
    struct StageMode {
        bool operator==(const StageMode&) const = default;
    };
    struct OutputVolume {
        bool operator==(const OutputVolume&) const = default;
    };
    // The alternative's index is the target's case number, which keys edge-triggered presses:
    // 3 for a config load, 4 for stage mode.
    using Target = std::variant<AppVolume, AppMute, DeviceVolume, ConfigLoad, StageMode, OutputVolume>;

    std::string id;
    std::int64_t channel = 0;
    std::int64_t cc = 0;
    Target target = OutputVolume{};

    int targetCaseNumber() const { return static_cast<int>(target.index()); }

    bool operator==(const MIDIMapping&) const = default;
};

// A target is an object with exactly one key, the case name, holding the payload's fields:
// {"appVolume": {"bundleID": "..."}}, {"stageMode": {}}.
void to_json(nlohmann::json& j, const MIDIMapping& value);
// Strict: every key is required; an unknown case name raises ConfigDecodeError.
void from_json(const nlohmann::json& j, MIDIMapping& value);

} // namespace tonavi
