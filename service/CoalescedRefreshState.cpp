#include "service/CoalescedRefreshState.hpp"

namespace tonavi {

bool CoalescedRefreshState::request(const std::string& key) {
    ++requestedGeneration_[key];
    return active_.insert(key).second;
}

std::uint64_t CoalescedRefreshState::generationForNextPass(const std::string& key) const {
    auto it = requestedGeneration_.find(key);
    return it == requestedGeneration_.end() ? 0 : it->second;
}

bool CoalescedRefreshState::finishPass(const std::string& key, std::uint64_t generation) {
    if (generationForNextPass(key) != generation)
        return true;
    requestedGeneration_.erase(key);
    active_.erase(key);
    return false;
}

} // namespace tonavi
