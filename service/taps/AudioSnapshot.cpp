#include "service/taps/AudioSnapshot.hpp"

namespace tonavi {

std::vector<std::string> AudioSnapshot::playingBundleIDs() const {
    std::vector<std::string> ids;
    for (const auto& [id, activity] : resolved)
        if (activity.playing)
            ids.push_back(id);
    return ids;
}

} // namespace tonavi
