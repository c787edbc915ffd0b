#pragma once
// One status for the client's tests: three apps (one boosted and redirected, one muted with a control
// issue, one direct-locked) and four devices (default output, a hidden nicknamed one, an input, a group).

#include "core/outputs/OutputGroupIdentity.hpp"
#include "core/wire/TonaviStatus.hpp"

namespace tonavi::testing {

inline const std::string livingGroupUID = std::string(OutputGroupIdentity::aggregateUIDPrefix) + "g-1";

inline TonaviStatus sampleStatus() {
    using T = DeviceLiveStatus::Transport;
    auto app = [](std::string id, std::string name, double volume, double boost) {
        return AppLiveStatus{
            .id = std::move(id), .displayName = std::move(name), .volume = volume, .boost = boost};
    };
    auto device = [](std::string id, std::string name, T transport, bool output) {
        return DeviceLiveStatus{.id = std::move(id),
                                .name = std::move(name),
                                .transport = transport,
                                .isInput = !output,
                                .isOutput = output};
    };
    TonaviStatus s;
    s.apps = {app("com.apple.Music", "Music", 0.5, 2), app("com.apple.Safari", "Safari", 1, 1),
              app("com.apple.mail", "Mäil", 1, 1)};
    s.apps[0].engaged = s.apps[1].engaged = s.apps[1].muted = s.apps[2].directLocked = true;
    s.apps[0].level = 0.42f;
    s.apps[1].level = 1.5f; // beyond the meter's scale: a full bar, not an overflow
    s.apps[0].redirectUID = "USB-HP";
    s.apps[1].controlIssue =
        "Audio control could not attach. Sound is on the direct path; Tonavi is retrying.";
    s.devices = {device("BuiltIn", "MacBook Pro Speakers", T::builtin, true),
                 device("USB-HP", "USB Headphones", T::usb, true),
                 device("Mic", "MacBook Pro Microphone", T::builtin, false),
                 device(livingGroupUID, "Living", T::aggregate, true)};
    s.devices[0].isDefaultOutput = s.devices[0].hasVolume = s.devices[2].isDefaultInput = true;
    s.devices[0].volume = 0.5;
    s.devices[1].nickname = "Desk cans";
    s.devices[1].hidden = s.devices[1].muted = true;
    s.defaultOutputUID = s.soundEffectsUID = "BuiltIn";
    s.defaultInputUID = "Mic";
    return s;
}

} // namespace tonavi::testing
