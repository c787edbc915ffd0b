#include "core/wire/MixerCommandDispatcher.hpp"

namespace tonavi {

MixerCommandDispatcher::MixerCommandDispatcher() = default;

void MixerCommandDispatcher::submit(std::optional<std::string> key, Closure work) {
    bool wasDraining = false;
    {
        std::lock_guard guard(lock_);
        pending_.append(std::move(work), std::move(key));
        wasDraining = draining_;
        draining_ = true;
        if (!wasDraining)
            ++drainsStarted_;
    }
    if (!wasDraining)
        queue_.async([this] { drain(); });
}

void MixerCommandDispatcher::drain() {
    std::unique_lock guard(lock_);
    while (auto command = pending_.popFirst()) {
        guard.unlock();
        if (*command)
            (*command)();
        guard.lock();
    }
    draining_ = false;
    guard.unlock();
    idle_.notify_all();
}

bool MixerCommandDispatcher::waitUntilIdle(std::chrono::milliseconds timeout) {
    std::unique_lock guard(lock_);
    return idle_.wait_for(guard, timeout, [this] { return !draining_; });
}

std::size_t MixerCommandDispatcher::drainsStarted() const {
    std::lock_guard guard(lock_);
    return drainsStarted_;
}

} // namespace tonavi
