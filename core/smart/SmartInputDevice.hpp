#pragma once
// One input device as Mic follow sees it, read by the runtime from the hardware.

#include "core/smart/BundleIDSet.hpp"
#include "core/wire/DeviceLiveStatus.hpp"

#include <optional>
#include <string>

namespace tonavi {

struct SmartInputDevice {
    std::optional<std::string> uid; // none when it cannot be read
    DeviceLiveStatus::Transport transport = DeviceLiveStatus::Transport::other;
    int inputChannels = 0;   // from the input stream configuration
    BundleIDSet relatedUIDs; // related devices

    bool operator==(const SmartInputDevice&) const = default;
};

} // namespace tonavi
