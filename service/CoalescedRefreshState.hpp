#pragma once
// Coalescing of tap work by key: for one key at most one pass runs and one more is pending, however
// many requests arrive meanwhile. Not thread-safe by itself; its owner guards it with a leaf lock.

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace tonavi {

class CoalescedRefreshState {
  public:
    // Counts a request. True only when no pass was active for the key: the caller starts one.
    bool request(const std::string& key);
    // The generation a pass that starts now covers; 0 when the key was never requested.
    std::uint64_t generationForNextPass(const std::string& key) const;
    // Ends a pass that covered `generation`. True when a request arrived during it, so another pass
    // is needed; false when the key is idle again.
    bool finishPass(const std::string& key, std::uint64_t generation);

    bool isActive(const std::string& key) const { return active_.contains(key); }

  private:
    std::map<std::string, std::uint64_t> requestedGeneration_;
    std::set<std::string> active_;
};

} // namespace tonavi
