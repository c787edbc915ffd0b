#pragma once
// One device as the automatic output choice sees it.

#include <string>

#include "core/wire/DeviceLiveStatus.hpp"

namespace tonavi {

struct AutomaticOutputCandidate {
    std::string uid;
    std::string name;
    DeviceLiveStatus::Transport transport = DeviceLiveStatus::Transport::other;
    bool isOutput = false;
    bool hidden = false;

    bool operator==(const AutomaticOutputCandidate&) const = default;
};

} // namespace tonavi
