#pragma once
// What one smart pass reads besides the configuration: the latest snapshots and engine facts, all
// gathered by the runtime without touching hardware.

#include "core/smart/BundleIDSet.hpp"
#include "core/wire/DeviceLiveStatus.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tonavi {

struct SmartTickInputs {
    // From the resolved audio snapshot, before any filtering.
    BundleIDSet playing;
    BundleIDSet capturing;
    // Uptime in nanoseconds.
    std::uint64_t nowNanos = 0;
    // The default output from the hardware snapshot; "" and other when it is not in the list.
    std::string defaultOutputName;
    DeviceLiveStatus::Transport defaultOutputTransport = DeviceLiveStatus::Transport::other;
    bool hasHardwareVolume = true;
    double manualDuckDB = 0;
    bool soloActive = false;
    BundleIDSet soloedBundleIDs;
    // The app in front: the last activation seen, else the front window. Asked only while Follow-me is on.
    std::function<std::optional<std::string>()> frontmost;
    // Whether a running app with this ID is a regular (windowed) app. Asked only for IDs that are
    // neither known audio apps nor configured.
    BundleIDPredicate runsAsRegularApp;
};

} // namespace tonavi
