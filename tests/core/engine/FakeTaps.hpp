#pragma once
// A scriptable tap provider: creates can fail, can be slowed down, and can run a hook while they
// "block", so a test can change the engine in the middle of a provider call. Every handle is
// recorded so tests can check that each one is destroyed exactly once.

#include "core/engine/TapProviding.hpp"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tonavi::testing {

struct FakeHandle : TapHandle {
    explicit FakeHandle(std::string id) : bundleID(std::move(id)) {}
    const std::string bundleID;
};

class FakeTaps : public TapProviding {
  public:
    TapHandlePtr createTap(const std::string& bundleID) override {
        std::unique_lock guard(mutex_);
        ++createCalls_[bundleID];
        const bool fail = failing_.contains(bundleID);
        const auto delay = delay_;
        const auto hook = onCreate;
        guard.unlock();
        if (delay.count() > 0)
            std::this_thread::sleep_for(delay); // a worker that starts slowly
        if (hook)
            hook(bundleID);
        if (fail)
            return nullptr;
        guard.lock();
        return created_.emplace_back(std::make_shared<FakeHandle>(bundleID));
    }
    void destroyTap(const TapHandlePtr& handle) override {
        std::lock_guard guard(mutex_);
        ++destroyed_[handle.get()];
    }
    void retireReplacedTap(const TapHandlePtr& handle) override {
        std::lock_guard guard(mutex_);
        ++retired_;
        ++destroyed_[handle.get()];
    }

    void failAlways(const std::string& bundleID, bool fail) {
        std::lock_guard guard(mutex_);
        fail ? (void)failing_.insert(bundleID) : (void)failing_.erase(bundleID);
    }
    void setCreateDelay(std::chrono::microseconds delay) {
        std::lock_guard guard(mutex_);
        delay_ = delay;
    }
    // Runs inside createTap, outside every engine lock. Set it before threads start.
    std::function<void(const std::string&)> onCreate;

    int createCalls(const std::string& bundleID) {
        std::lock_guard guard(mutex_);
        return createCalls_[bundleID];
    }
    int destroyCount(const TapHandlePtr& handle) {
        std::lock_guard guard(mutex_);
        return destroyed_[handle.get()];
    }
    int retiredCount() {
        std::lock_guard guard(mutex_);
        return retired_;
    }
    std::vector<TapHandlePtr> everyHandle() {
        std::lock_guard guard(mutex_);
        return created_;
    }
    int liveCount() {
        std::lock_guard guard(mutex_);
        return static_cast<int>(std::count_if(created_.begin(), created_.end(),
                                              [&](const auto& h) { return destroyed_[h.get()] == 0; }));
    }
    // True when no handle was destroyed twice.
    bool noDoubleDestroys() {
        std::lock_guard guard(mutex_);
        return std::all_of(destroyed_.begin(), destroyed_.end(), [](const auto& e) { return e.second <= 1; });
    }

  private:
    std::mutex mutex_;
    std::set<std::string> failing_;
    std::chrono::microseconds delay_{0};
    std::map<std::string, int> createCalls_;
    std::vector<TapHandlePtr> created_;
    std::map<const TapHandle*, int> destroyed_;
    int retired_ = 0;
};

} // namespace tonavi::testing
