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

class FakeTaps : public TapProviding {
  public:
    TapHandlePtr createTap(const std::string& bundleID) override {
        std::unique_lock guard(mutex_);
        ++createCalls_[bundleID];
        const bool fail = failing_.contains(bundleID);
        guard.unlock();
        if (createDelay.count() > 0)
            std::this_thread::sleep_for(createDelay); // a worker that starts slowly
        if (onCreate)
            onCreate(bundleID);
        guard.lock();
        return fail ? nullptr : created_.emplace_back(std::make_shared<TapHandle>());
    }
    void destroyTap(const TapHandlePtr& handle) override { retire(handle, false); }
    void retireReplacedTap(const TapHandlePtr& handle) override { retire(handle, true); }

    void failAlways(const std::string& bundleID, bool fail) {
        std::lock_guard guard(mutex_);
        fail ? (void)failing_.insert(bundleID) : (void)failing_.erase(bundleID);
    }
    // Both run inside createTap, outside every engine lock. Set them before threads start.
    std::chrono::microseconds createDelay{0};
    std::function<void(const std::string&)> onCreate;

    int createCalls(const std::string& bundleID) {
        return locked([&] { return createCalls_[bundleID]; });
    }
    int destroyCount(const TapHandlePtr& handle) {
        return locked([&] { return destroyed_[handle.get()]; });
    }
    int retiredCount() {
        return locked([&] { return retired_; });
    }
    std::vector<TapHandlePtr> everyHandle() {
        return locked([&] { return created_; });
    }
    int liveCount() {
        return locked([&] {
            return static_cast<int>(std::count_if(created_.begin(), created_.end(),
                                                  [&](const auto& h) { return destroyed_[h.get()] == 0; }));
        });
    }
    // True when no handle was destroyed twice.
    bool noDoubleDestroys() {
        return locked([&] {
            return std::all_of(destroyed_.begin(), destroyed_.end(),
                               [](const auto& e) { return e.second <= 1; });
        });
    }

  private:
    template <class F> auto locked(F f) -> decltype(f()) {
        std::lock_guard guard(mutex_);
        return f();
    }
    void retire(const TapHandlePtr& handle, bool replaced) {
        std::lock_guard guard(mutex_);
        retired_ += replaced;
        ++destroyed_[handle.get()];
    }

    std::mutex mutex_;
    std::set<std::string> failing_;
    std::map<std::string, int> createCalls_;
    std::vector<TapHandlePtr> created_;
    std::map<const TapHandle*, int> destroyed_;
    int retired_ = 0;
};

} // namespace tonavi::testing
