#pragma once
// A named thread that runs one loop until it is stopped. The loop polls `wakeFD()` (an eventfd)
// beside its own descriptors, so that a stop reaches it however long it would otherwise wait.
// Owned by one source object, which stops it in its destructor before its other members go.

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace tonavi {

class StoppableThread {
  public:
    StoppableThread() = default;
    StoppableThread(const StoppableThread&) = delete;
    StoppableThread& operator=(const StoppableThread&) = delete;
    ~StoppableThread() {
        requestStop();
        join();
    }

    // Starts `body` on a thread called `name`; the reason when the wake descriptor cannot be made.
    std::string start(const char* name, std::function<void()> body) {
        wakeFD_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeFD_ < 0)
            return std::string("eventfd: ") + std::strerror(errno);
        thread_ = std::thread([name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
        return {};
    }
    // Sets the flag and wakes the loop; `join` then waits for it.
    void requestStop() {
        stopping_.store(true);
        if (wakeFD_ >= 0) {
            const std::uint64_t one = 1;
            [[maybe_unused]] auto n = ::write(wakeFD_, &one, sizeof(one));
        }
    }
    void join() {
        if (thread_.joinable())
            thread_.join();
        if (wakeFD_ >= 0)
            ::close(wakeFD_);
        wakeFD_ = -1;
    }
    bool stopping() const { return stopping_.load(); }
    // On the loop's thread: waits up to `milliseconds` (a retry's backoff) or until a stop; true to go on.
    bool waitUnlessStopped(int milliseconds) const {
        pollfd fd{wakeFD_, POLLIN, 0};
        ::poll(&fd, 1, milliseconds);
        return !stopping();
    }
    int wakeFD() const { return wakeFD_; }

  private:
    int wakeFD_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace tonavi
