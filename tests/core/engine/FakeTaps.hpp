#pragma once
// A scriptable tap provider: creates can fail, can run a hook while "blocking" (so a test can
// change the engine in the middle of a provider call), and can be slowed down. Every handle is
// recorded so tests can check that each one is destroyed exactly once.

#include "core/engine/TapProviding.hpp"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tonavi::testing {

class FakeHandle : public TapHandle {
public:
    FakeHandle(std::string id, int serial) : bundleID(std::move(id)), serial(serial) {}
    const std::string bundleID;
    const int serial;
};

class FakeTaps : public TapProviding {
public:
    TapHandlePtr createTap(const std::string& bundleID) override;
    void destroyTap(const TapHandlePtr& handle) override;
    void retireReplacedTap(const TapHandlePtr& handle) override;

    // Scripting.
    void failAlways(const std::string& bundleID, bool fail);
    void setCreateDelay(std::chrono::microseconds delay);
    // Runs inside createTap, after the failure decision, outside any engine lock.
    void setOnCreate(std::function<void(const std::string&)> hook);

    // Observation.
    int createCalls(const std::string& bundleID) const;
    int liveCount() const;
    std::vector<std::string> liveBundleIDs() const;
    int destroyCount(const TapHandle* handle) const;
    int retiredCount() const;
    // Handles destroyed more than once, or created and still not destroyed.
    int doubleDestroys() const;
    std::vector<TapHandlePtr> everyHandle() const;

private:
    mutable std::mutex mutex_;
    std::set<std::string> failing_;
    std::chrono::microseconds delay_{0};
    std::function<void(const std::string&)> onCreate_;
    std::map<std::string, int> createCalls_;
    std::vector<TapHandlePtr> created_;
    std::map<const TapHandle*, int> destroyed_;
    int retired_ = 0;
    int serial_ = 0;
};

}  // namespace tonavi::testing
