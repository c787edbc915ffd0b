#pragma once
// A boolean behind its own small mutex, readable without the engine's lock. The engine's three
// global flags (stage, hardware suspension, shutdown) live in these so the render gate and the
// reconcile pass can read them without taking the engine lock first.

#include <mutex>

namespace tonavi {

class AtomicFlag {
  public:
    explicit AtomicFlag(bool initial = false) : value_(initial) {}
    AtomicFlag(const AtomicFlag&) = delete;
    AtomicFlag& operator=(const AtomicFlag&) = delete;

    bool load() const;
    void store(bool value);
    // Stores `value` and returns the previous one, in one hold.
    bool exchange(bool value);

  private:
    mutable std::mutex mutex_;
    bool value_;
};

} // namespace tonavi
