#pragma once
// Sends a mixer's commands one at a time on a queue of its own, in the order of a MixerCommandBuffer.
// A command that takes long (a slow socket) does not hold up submit: newer commands coalesce behind it,
// so the service sees only the last position of a dragged control.

#include "base/Dispatch.hpp"
#include "core/wire/MixerCommandBuffer.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

namespace tonavi {

class MixerCommandDispatcher {
  public:
    MixerCommandDispatcher();
    // Commands not started are dropped; a running one is waited for.
    ~MixerCommandDispatcher() = default;
    MixerCommandDispatcher(const MixerCommandDispatcher&) = delete;
    MixerCommandDispatcher& operator=(const MixerCommandDispatcher&) = delete;

    // From any thread. `key` names what the command sets (an application and a control); none makes the
    // command a barrier.
    void submit(std::optional<std::string> key, Closure work);

    // Waits until every submitted command has run, or the time-out passes; true when idle. A client calls
    // it before it exits so that the last position it showed is the one the service has.
    bool waitUntilIdle(std::chrono::milliseconds timeout);

    // How many drains have been queued since construction: one per run of submits that found the
    // dispatcher idle.
    std::size_t drainsStarted() const;

  private:
    void drain();

    mutable std::mutex lock_;             // guards pending_, draining_ and drainsStarted_
    MixerCommandBuffer<Closure> pending_; // commands not started
    bool draining_ = false;               // a drain is queued or running
    std::size_t drainsStarted_ = 0;
    std::condition_variable idle_; // notified when a drain ends
    // Declared last so that it is destroyed first: its destructor waits for a running drain, which still
    // uses everything above.
    DispatchQueue queue_{"tonavi.mixer-commands"};
};

} // namespace tonavi
