#include "FakeTaps.hpp"

#include <algorithm>
#include <thread>

namespace tonavi::testing {

TapHandlePtr FakeTaps::createTap(const std::string& bundleID) {
    std::chrono::microseconds delay;
    std::function<void(const std::string&)> hook;
    bool fail;
    {
        std::lock_guard guard(mutex_);
        ++createCalls_[bundleID];
        fail = failing_.contains(bundleID);
        delay = delay_;
        hook = onCreate_;
    }
    // Stands in for a provider that blocks while a worker starts.
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    if (hook) hook(bundleID);
    if (fail) return nullptr;
    std::lock_guard guard(mutex_);
    auto handle = std::make_shared<FakeHandle>(bundleID, ++serial_);
    created_.push_back(handle);
    return handle;
}

void FakeTaps::destroyTap(const TapHandlePtr& handle) {
    std::lock_guard guard(mutex_);
    ++destroyed_[handle.get()];
}

void FakeTaps::retireReplacedTap(const TapHandlePtr& handle) {
    {
        std::lock_guard guard(mutex_);
        ++retired_;
    }
    destroyTap(handle);
}

void FakeTaps::failAlways(const std::string& bundleID, bool fail) {
    std::lock_guard guard(mutex_);
    if (fail)
        failing_.insert(bundleID);
    else
        failing_.erase(bundleID);
}

void FakeTaps::setCreateDelay(std::chrono::microseconds delay) {
    std::lock_guard guard(mutex_);
    delay_ = delay;
}

void FakeTaps::setOnCreate(std::function<void(const std::string&)> hook) {
    std::lock_guard guard(mutex_);
    onCreate_ = std::move(hook);
}

int FakeTaps::createCalls(const std::string& bundleID) const {
    std::lock_guard guard(mutex_);
    auto it = createCalls_.find(bundleID);
    return it == createCalls_.end() ? 0 : it->second;
}

int FakeTaps::liveCount() const { return static_cast<int>(liveBundleIDs().size()); }

std::vector<std::string> FakeTaps::liveBundleIDs() const {
    std::lock_guard guard(mutex_);
    std::vector<std::string> ids;
    for (const auto& handle : created_)
        if (!destroyed_.contains(handle.get()))
            ids.push_back(static_cast<const FakeHandle&>(*handle).bundleID);
    std::sort(ids.begin(), ids.end());
    return ids;
}

int FakeTaps::destroyCount(const TapHandle* handle) const {
    std::lock_guard guard(mutex_);
    auto it = destroyed_.find(handle);
    return it == destroyed_.end() ? 0 : it->second;
}

int FakeTaps::retiredCount() const {
    std::lock_guard guard(mutex_);
    return retired_;
}

int FakeTaps::doubleDestroys() const {
    std::lock_guard guard(mutex_);
    return static_cast<int>(std::count_if(destroyed_.begin(), destroyed_.end(),
                                          [](const auto& entry) { return entry.second > 1; }));
}

std::vector<TapHandlePtr> FakeTaps::everyHandle() const {
    std::lock_guard guard(mutex_);
    return created_;
}

}  // namespace tonavi::testing
