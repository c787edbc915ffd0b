#pragma once
// Shared pieces of the platform tests: a tone detector, process lookup on the simulated machine, a
// listener that records what it heard and on which queue, and a waiter on a condition.

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <numbers>
#include <string>
#include <vector>

#include "base/Dispatch.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/sim/SimMachine.hpp"
#include "tests/platform/support/ToneLevel.hpp"
#include "tests/support/TempFolder.hpp"

namespace tonavi::test {

// The process object of a running application on a simulated machine, or 0.
inline AudioObjectID processOf(SimMachine& machine, const std::string& bundleID) {
    for (const auto& p : machine.world()->processes)
        if (p.bundleID == bundleID)
            return p.id;
    return 0;
}

// Records each delivery: the addresses, and whether it ran on the queue it was registered with.
class RecordingListener {
  public:
    explicit RecordingListener(DispatchQueue& queue) : queue_(queue) {
        block = std::make_shared<const std::function<void(std::span<const AudioObjectPropertyAddress>)>>(
            [this](std::span<const AudioObjectPropertyAddress> addresses) {
                std::lock_guard<std::mutex> guard(mutex_);
                calls_ += 1;
                offQueue_ += queue_.isCurrent() ? 0 : 1;
                heard_.insert(heard_.end(), addresses.begin(), addresses.end());
                changed_.notify_all();
            });
    }
    bool waitForCalls(int count, std::chrono::seconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return calls_ >= count; });
    }
    int calls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }
    int offQueue() {
        std::lock_guard<std::mutex> guard(mutex_);
        return offQueue_;
    }
    std::vector<AudioObjectPropertyAddress> heard() {
        std::lock_guard<std::mutex> guard(mutex_);
        return heard_;
    }

    AudioObjectPropertyListenerBlock block;

  private:
    DispatchQueue& queue_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int calls_ = 0;
    int offQueue_ = 0;
    std::vector<AudioObjectPropertyAddress> heard_;
};

// Polls a condition that another process or thread makes true; no fixed sleeps in the tests.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::milliseconds(10'000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition())
            return true;
        std::mutex m;
        std::condition_variable cv;
        std::unique_lock<std::mutex> lock(m);
        cv.wait_for(lock, std::chrono::milliseconds(5));
    }
    return condition();
}

} // namespace tonavi::test
