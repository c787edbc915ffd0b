#pragma once
// Sleep and wake from logind: the `PrepareForSleep` signal of `org.freedesktop.login1.Manager` on the
// system bus, true before the machine sleeps and false after it wakes. One thread,
// "tonavi.logind", owns the bus connection (sd-bus, which honours DBUS_SYSTEM_BUS_ADDRESS) and calls
// `onSleep(true)` or `onSleep(false)` on itself for each signal.
//
// Only the bus name "org.freedesktop.login1" may send it: the bus routes the match by the name's
// owner, so another client's forged signal never suspends the mixer. Without a system bus nothing is
// observed and that is logged once; a bus that goes away is tried again with a backoff from 1 s to
// 30 s, quietly.

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/linux/StoppableThread.hpp"

namespace tonavi {

class LogindSleepSource {
  public:
    using SleepChanged = std::function<void(bool sleeping)>;

    explicit LogindSleepSource(SleepChanged onSleep);
    ~LogindSleepSource(); // stops and joins the thread; no callback runs after it returns
    LogindSleepSource(const LogindSleepSource&) = delete;
    LogindSleepSource& operator=(const LogindSleepSource&) = delete;

    // Whether the match on the bus is in place now.
    bool listening() const;

  private:
    void run();

    const SleepChanged onSleep_;
    std::atomic<bool> listening_{false};
    StoppableThread worker_; // last: it stops before the members its loop uses go
};

} // namespace tonavi
