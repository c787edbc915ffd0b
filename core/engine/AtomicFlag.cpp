#include "core/engine/AtomicFlag.hpp"

namespace tonavi {

bool AtomicFlag::load() const {
    std::lock_guard guard(mutex_);
    return value_;
}

void AtomicFlag::store(bool value) {
    std::lock_guard guard(mutex_);
    value_ = value;
}

bool AtomicFlag::exchange(bool value) {
    std::lock_guard guard(mutex_);
    const bool previous = value_;
    value_ = value;
    return previous;
}

} // namespace tonavi
