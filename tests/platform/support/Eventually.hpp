#pragma once
// Polls a condition that another process or thread makes true; no fixed sleeps in the tests.

#include <chrono>
#include <functional>
#include <thread>

namespace tonavi::test {

// How much slower a sanitizer build runs: a time limit that only that slowness breaks is scaled by it.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr int sanitizerSlowdown = 3;
#else
inline constexpr int sanitizerSlowdown = 1;
#endif

inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::milliseconds(10'000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace tonavi::test
