#pragma once
// The description dictionary of an aggregate device, with Core Audio's keys as fields:
// "uid", "name", "private", "stacked", "master", "subdevices" and "taps".

#include <string>
#include <vector>

namespace tonavi {

struct AggregateDeviceDescription {
    struct SubDevice {
        std::string uid;
        bool driftCompensation = false; // "drift"
    };
    struct SubTap {
        std::string uid; // the tap description's UUID
        bool driftCompensation = false;
    };

    std::string uid;
    std::string name;
    bool isPrivate = false;
    // false: every sub-device plays the same channels (a multi-output device); true: channels add up.
    bool isStacked = false;
    std::string mainSubDevice; // "master": the clock
    std::vector<SubDevice> subDevices;
    std::vector<SubTap> taps;
};

} // namespace tonavi
