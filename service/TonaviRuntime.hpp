#pragma once
// The service's one stateful object. Its queue `serialQueue` is the lock of its state: every request
// runs there. This is the runtime's control-path shell; the engine, store, device manager and timers
// join it as they are built.

#include "base/Dispatch.hpp"
#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"

#include <functional>
#include <string>

namespace tonavi {

class TonaviRuntime {
public:
    explicit TonaviRuntime(std::string version);
    TonaviRuntime(const TonaviRuntime&) = delete;
    TonaviRuntime& operator=(const TonaviRuntime&) = delete;

    // The entry from the control server. `completion` may run before this returns or later, on another
    // thread; every request handled today completes synchronously.
    void handleAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion);
    // Runs handleLocked on serialQueue and waits for it.
    TonaviReply handle(const TonaviRequest& request);
    // The stop body: flushes what must survive and lets every tap go. Runs on serialQueue.
    void releaseTapsThenStop();

    const std::string& version() const { return version_; }
    DispatchQueue& serialQueue() { return serialQueue_; }

    // TONAVI_APP_VERSION, else "development".
    static std::string versionFromEnvironment();

private:
    TonaviReply handleLocked(const TonaviRequest& request);

    std::string version_;
    DispatchQueue serialQueue_{"tonavi.runtime"};
};

}  // namespace tonavi
