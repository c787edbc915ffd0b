#pragma once
// Exponential pacing of retries per key: a failing cause is retried after 2, 4, 8, 16, then every
// 30 seconds (with the usual 2 and 30), while a new cause for the same key is tried at once and
// starts its own series. Not thread-safe: its owner guards it.

#include <map>
#include <string>

namespace tonavi {

class TapRecoveryBackoff {
  public:
    struct Entry {
        std::string issue;
        int attempt = 0;
        double nextAllowedAt = 0.0;
    };

    // `initialDelay` is at least 0.1 s, `maximumDelay` at least `initialDelay`.
    TapRecoveryBackoff(double initialDelay = 2.0, double maximumDelay = 30.0);

    // True when an attempt for `key` because of `issue` may go ahead at `now` (seconds on any
    // monotonic scale); a permitted attempt books the next delay.
    bool permit(const std::string& key, const std::string& issue, double now);
    void reset(const std::string& key) { entries_.erase(key); }
    const std::map<std::string, Entry, std::less<>>& entries() const { return entries_; }

  private:
    std::map<std::string, Entry, std::less<>> entries_;
    double initialDelay_;
    double maximumDelay_;
};

} // namespace tonavi
