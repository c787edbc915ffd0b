#pragma once
// Helpers shared by the runtime's source files for work that outlives a call: timers, nudges and
// listener blocks hold the runtime through a weak anchor and do nothing once it is gone.

#include <chrono>
#include <memory>

namespace tonavi {

class TonaviRuntime;

template <class Body> void withRuntime(const std::weak_ptr<TonaviRuntime*>& weak, Body&& body) {
    if (auto anchor = weak.lock())
        body(**anchor);
}

inline std::chrono::nanoseconds seconds(double s) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(s));
}

} // namespace tonavi
