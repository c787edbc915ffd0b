#pragma once
// Desktop entries looked up one at a time, as the Linux backend needs them: an application's entry by
// its identifier (the activation policy) and the identifier of the entry that runs a program (the
// bundle ID of a process without one). Answers are read again at most every `maximumAge`, so a newly
// installed application is seen without a restart. Thread-safe; the lock is a leaf held around the
// maps only, never across file reads.

#include "platform/DesktopEntries.hpp"

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace tonavi {

class DesktopEntryCache {
  public:
    explicit DesktopEntryCache(std::chrono::seconds maximumAge = std::chrono::seconds(10)) : maximumAge_(maximumAge) {}

    // The entry of the first folder that has the identifier (a hidden one there stands for all).
    std::optional<DesktopEntry> find(const std::string& id);
    // The identifier of the first listed entry whose program is `binary`; empty when none.
    std::string idForProgram(const std::string& binary);

    // The process's shared instance.
    static DesktopEntryCache& shared();

  private:
    template <class T> struct Cached {
        T value;
        std::chrono::steady_clock::time_point at;
    };
    const std::chrono::seconds maximumAge_;
    std::mutex mutex_;
    std::unordered_map<std::string, Cached<std::optional<DesktopEntry>>> byID_;
    std::unordered_map<std::string, Cached<std::string>> byProgram_;
};

} // namespace tonavi
