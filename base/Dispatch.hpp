#pragma once
// A small equivalent of libdispatch: serial queues (one thread each), global concurrent queues,
// the main queue that the main thread runs, cancellable work items, repeating timers and
// signal sources. Every queue has a label; code that owns state says which queue it runs on.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace tonavi {

using Closure = std::function<void()>;
using DispatchTime = std::chrono::steady_clock::time_point;

// Time source for delayed work. The default follows the steady clock; tests use ManualClock
// so that "after" and timers fire exactly when the test advances time.
class DispatchClock {
public:
    virtual ~DispatchClock() = default;
    virtual DispatchTime now() const = 0;
    // True when waiting must not use the real clock (waits end only on notify).
    virtual bool isManual() const { return false; }
    static std::shared_ptr<DispatchClock> system();
};

class ManualClock : public DispatchClock {
public:
    DispatchTime now() const override;
    bool isManual() const override { return true; }
    void advance(std::chrono::nanoseconds by);
    // Queues using this clock register to be woken when time moves.
    void addWaiter(std::weak_ptr<std::function<void()>> wake);

private:
    mutable std::mutex mutex_;
    DispatchTime now_{};
    std::vector<std::weak_ptr<std::function<void()>>> waiters_;
};

// A block of work that can be cancelled before it runs. Cancelling a running item does not stop it.
class WorkItem {
public:
    explicit WorkItem(Closure body) : body_(std::move(body)) {}
    void cancel() { cancelled_.store(true); }
    bool isCancelled() const { return cancelled_.load(); }
    void perform() {
        if (!isCancelled() && body_) body_();
    }

private:
    Closure body_;
    std::atomic<bool> cancelled_{false};
};
using WorkItemRef = std::shared_ptr<WorkItem>;

enum class QoS { background, utility, defaultQoS, userInitiated, userInteractive };

class DispatchQueue {
public:
    enum class Kind { serial, concurrent, main };

    // A serial queue with its own thread. With a manual clock, delayed work waits for the clock.
    explicit DispatchQueue(std::string label, std::shared_ptr<DispatchClock> clock = DispatchClock::system());
    DispatchQueue(std::string label, Kind kind, int threads,
                  std::shared_ptr<DispatchClock> clock = DispatchClock::system());
    ~DispatchQueue();  // drains nothing: pending work is dropped, the running item is waited for
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    void async(Closure work);
    void async(const WorkItemRef& item);
    // Runs work on the queue and waits for it. Calling sync on the queue you are on runs inline
    // (a serial queue cannot wait for itself without deadlock).
    void sync(const Closure& work);
    template <class F>
    auto syncResult(F&& f) -> decltype(f()) {
        using R = decltype(f());
        if constexpr (std::is_void_v<R>) {
            sync(std::forward<F>(f));
        } else {
            std::optional<R> out;
            sync([&] { out.emplace(f()); });
            return std::move(*out);
        }
    }
    void after(std::chrono::nanoseconds delay, Closure work);
    // Runs work once the queue's clock reaches `when`.
    void at(DispatchTime when, Closure work);
    void after(std::chrono::nanoseconds delay, const WorkItemRef& item);
    void afterSeconds(double seconds, Closure work);

    bool isCurrent() const;
    const std::string& label() const { return label_; }
    DispatchClock& clock() const { return *clock_; }

    // The queue the main thread runs with runMain(); nothing runs on it before that.
    static DispatchQueue& main();
    // Runs the main queue on the calling thread for ever.
    [[noreturn]] static void runMain();
    // Runs the main queue until pred() is true after some item (tests and orderly shutdowns).
    static void runMainUntil(const std::function<bool()>& pred);
    static DispatchQueue& global(QoS qos = QoS::defaultQoS);

    struct State;

private:
    std::string label_;
    std::shared_ptr<DispatchClock> clock_;
    std::shared_ptr<State> state_;
};

// A repeating timer on a queue: first fire after `start`, then every `interval`, with `leeway`
// tolerated (the handler never runs early). Cancelled by cancel() or destruction.
class DispatchTimer {
public:
    DispatchTimer(DispatchQueue& queue, std::chrono::nanoseconds start, std::chrono::nanoseconds interval,
                  Closure handler, std::chrono::nanoseconds leeway = std::chrono::milliseconds(0));
    ~DispatchTimer();
    void resume();
    void cancel();
    bool isCancelled() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

// Delivers a POSIX signal to a handler on a queue. The source installs its own process handler,
// which only writes to a pipe; the handler runs later on the queue, never in signal context.
class SignalSource {
public:
    SignalSource(int signalNumber, DispatchQueue& queue, Closure handler);
    ~SignalSource();
    void resume();
    void cancel();

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

// Runs a handler on a queue once a process has ended: a child, or any other process this one may see
// (a worker watches its parent this way). A process that is already gone when the source resumes
// fires at once. For a child, the handler still has to reap it. The wait happens on one thread per
// source, named "tonavi.pidwatch", which ends when the process does or the source is cancelled.
class ProcessExitSource {
public:
    ProcessExitSource(int pid, DispatchQueue& queue, Closure handler);
    ~ProcessExitSource();  // cancels and waits for the watch thread
    ProcessExitSource(const ProcessExitSource&) = delete;
    ProcessExitSource& operator=(const ProcessExitSource&) = delete;
    void resume();
    // The handler does not run after this returns, unless it is already running.
    void cancel();
    bool isCancelled() const;
    // Tests: watch the way a kernel without pid descriptors makes us, by looking ten times a second.
    static void setPidDescriptorsForTesting(bool allowed);

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace tonavi
