#include "platform/TapDescription.hpp"

#include "base/Encoding.hpp"

namespace tonavi {

TapDescription TapDescription::deviceStream(std::vector<AudioObjectID> processes, std::string deviceUID,
                                            std::uint32_t stream) {
    TapDescription d;
    d.processes = std::move(processes);
    d.deviceUID = std::move(deviceUID);
    d.stream = stream;
    d.uuid = makeUUID();
    return d;
}

TapDescription TapDescription::stereoMixdown(std::vector<AudioObjectID> processes) {
    TapDescription d;
    d.processes = std::move(processes);
    d.mixdown = true;
    d.uuid = makeUUID();
    return d;
}

} // namespace tonavi
