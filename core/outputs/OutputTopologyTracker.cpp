#include "core/outputs/OutputTopologyTracker.hpp"

namespace tonavi {

std::set<std::string>
OutputTopologyTracker::update(const std::map<std::string, OutputRouteSignature>& current) {
    if (!previous) {
        previous = current;
        return {};
    }
    std::set<std::string> changed;
    for (const auto& [uid, signature] : *previous) {
        auto it = current.find(uid);
        if (it == current.end() || !(it->second == signature))
            changed.insert(uid);
    }
    for (const auto& [uid, signature] : current)
        if (!previous->count(uid))
            changed.insert(uid);
    previous = current;
    return changed;
}

} // namespace tonavi
