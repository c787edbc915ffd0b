#include "base/Dispatch.hpp"

#include <csignal>
#include <cerrno>
#include <deque>
#include <future>
#include <map>
#include <thread>
#include <unistd.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tonavi {

namespace {
class SystemClock final : public DispatchClock {
public:
    DispatchTime now() const override { return std::chrono::steady_clock::now(); }
};
}  // namespace

std::shared_ptr<DispatchClock> DispatchClock::system() {
    static std::shared_ptr<DispatchClock> clock = std::make_shared<SystemClock>();
    return clock;
}

DispatchTime ManualClock::now() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return now_;
}

void ManualClock::advance(std::chrono::nanoseconds by) {
    std::vector<std::shared_ptr<std::function<void()>>> live;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        now_ += by;
        for (auto it = waiters_.begin(); it != waiters_.end();) {
            if (auto w = it->lock()) {
                live.push_back(std::move(w));
                ++it;
            } else {
                it = waiters_.erase(it);
            }
        }
    }
    for (auto& w : live) (*w)();
}

void ManualClock::addWaiter(std::weak_ptr<std::function<void()>> wake) {
    std::lock_guard<std::mutex> guard(mutex_);
    waiters_.push_back(std::move(wake));
}

struct DispatchQueue::State {
    std::string label;
    Kind kind = Kind::serial;
    std::shared_ptr<DispatchClock> clock;
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<Closure> ready;
    // Ordered by due time, then by submission, so equal times keep FIFO order.
    std::map<std::pair<DispatchTime, std::uint64_t>, Closure> delayed;
    std::uint64_t sequence = 0;
    bool stopping = false;
    std::vector<std::thread> threads;
    std::shared_ptr<std::function<void()>> wake;

    // Runs items until stopping, or until `until` says so after an item (main queue helpers).
    void loop(const std::function<bool()>& until);
    // Delayed work that is already due goes ahead of anything submitted after its time.
    void promoteDueLocked() {
        auto now = clock->now();
        while (!delayed.empty() && delayed.begin()->first.first <= now) {
            ready.push_back(std::move(delayed.begin()->second));
            delayed.erase(delayed.begin());
        }
    }
    void push(Closure work) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            promoteDueLocked();
            ready.push_back(std::move(work));
        }
        cv.notify_one();
    }
    void pushAt(DispatchTime when, Closure work) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            delayed.emplace(std::make_pair(when, sequence++), std::move(work));
        }
        cv.notify_all();
    }
};

namespace {
thread_local const DispatchQueue::State* currentQueue = nullptr;

struct CurrentScope {
    const DispatchQueue::State* previous;
    explicit CurrentScope(const DispatchQueue::State* s) : previous(currentQueue) { currentQueue = s; }
    ~CurrentScope() { currentQueue = previous; }
};
}  // namespace

void DispatchQueue::State::loop(const std::function<bool()>& until) {
    CurrentScope scope(this);
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        promoteDueLocked();
        if (stopping) return;
        if (!ready.empty()) {
            Closure work = std::move(ready.front());
            ready.pop_front();
            lock.unlock();
            if (work) work();
            work = nullptr;  // captured state dies outside the queue lock
            if (until && until()) return;
            lock.lock();
            continue;
        }
        if (delayed.empty() || clock->isManual()) {
            cv.wait(lock);
        } else {
            // A copy: the node holding the due time can be erased while this thread waits.
            const DispatchTime due = delayed.begin()->first.first;
            cv.wait_until(lock, due);
        }
    }
}

DispatchQueue::DispatchQueue(std::string label, std::shared_ptr<DispatchClock> clock)
    : DispatchQueue(std::move(label), Kind::serial, 1, std::move(clock)) {}

DispatchQueue::DispatchQueue(std::string label, Kind kind, int threads, std::shared_ptr<DispatchClock> clock)
    : label_(std::move(label)), clock_(std::move(clock)), state_(std::make_shared<State>()) {
    state_->label = label_;
    state_->kind = kind;
    state_->clock = clock_;
    if (clock_->isManual()) {
        std::weak_ptr<State> weak = state_;
        state_->wake = std::make_shared<std::function<void()>>([weak] {
            if (auto s = weak.lock()) {
                std::lock_guard<std::mutex> guard(s->mutex);
                s->cv.notify_all();
            }
        });
        static_cast<ManualClock&>(*clock_).addWaiter(state_->wake);
    }
    if (kind == Kind::main) return;  // run by the main thread through runMain
    if (kind == Kind::serial) threads = 1;
    for (int i = 0; i < std::max(1, threads); ++i) {
        state_->threads.emplace_back([s = state_] { s->loop(nullptr); });
    }
}

DispatchQueue::~DispatchQueue() {
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        state_->stopping = true;
        state_->ready.clear();
        state_->delayed.clear();
    }
    state_->cv.notify_all();
    for (auto& t : state_->threads) {
        // A queue destroyed from its own work cannot join itself; its thread ends after that item.
        if (t.get_id() == std::this_thread::get_id()) {
            t.detach();
        } else {
            t.join();
        }
    }
}

void DispatchQueue::async(Closure work) { state_->push(std::move(work)); }

void DispatchQueue::async(const WorkItemRef& item) {
    state_->push([item] { item->perform(); });
}

void DispatchQueue::sync(const Closure& work) {
    if (isCurrent()) {
        work();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    state_->push([&] {
        try {
            work();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    finished.get();
}

void DispatchQueue::after(std::chrono::nanoseconds delay, Closure work) {
    at(clock_->now() + delay, std::move(work));
}

void DispatchQueue::after(std::chrono::nanoseconds delay, const WorkItemRef& item) {
    at(clock_->now() + delay, [item] { item->perform(); });
}

void DispatchQueue::afterSeconds(double seconds, Closure work) {
    after(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)),
          std::move(work));
}

void DispatchQueue::at(DispatchTime when, Closure work) { state_->pushAt(when, std::move(work)); }

bool DispatchQueue::isCurrent() const { return currentQueue == state_.get(); }

DispatchQueue& DispatchQueue::main() {
    static DispatchQueue* queue = new DispatchQueue("main", Kind::main, 0);
    return *queue;
}

void DispatchQueue::runMain() {
    main().state_->loop(nullptr);
    // Only a stopped main queue gets here, and nothing stops it.
    for (;;) pause();
}

void DispatchQueue::runMainUntil(const std::function<bool()>& pred) {
    if (pred()) return;
    main().state_->loop(pred);
}

DispatchQueue& DispatchQueue::global(QoS qos) {
    static DispatchQueue* queues[5] = {
        new DispatchQueue("global.background", Kind::concurrent, 2),
        new DispatchQueue("global.utility", Kind::concurrent, 4),
        new DispatchQueue("global.default", Kind::concurrent, 4),
        new DispatchQueue("global.user-initiated", Kind::concurrent, 4),
        new DispatchQueue("global.user-interactive", Kind::concurrent, 2),
    };
    return *queues[static_cast<int>(qos)];
}

// ---- Timer ----

struct DispatchTimer::Shared {
    DispatchQueue* queue;
    std::chrono::nanoseconds start;
    std::chrono::nanoseconds interval;
    Closure handler;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> resumed{false};
    DispatchTime next{};

    static void schedule(const std::shared_ptr<Shared>& self) {
        std::weak_ptr<Shared> weak = self;
        self->queue->at(self->next, [weak] {
            auto s = weak.lock();
            if (!s || s->cancelled.load()) return;
            s->handler();
            if (s->cancelled.load() || s->interval.count() <= 0) return;
            auto now = s->queue->clock().now();
            s->next += s->interval;
            // A late fire skips the missed ticks rather than bursting to catch up.
            if (s->next <= now) {
                auto behind = (now - s->next) / s->interval + 1;
                s->next += behind * s->interval;
            }
            schedule(s);
        });
    }
};

DispatchTimer::DispatchTimer(DispatchQueue& queue, std::chrono::nanoseconds start,
                             std::chrono::nanoseconds interval, Closure handler, std::chrono::nanoseconds)
    : shared_(std::make_shared<Shared>()) {
    shared_->queue = &queue;
    shared_->start = start;
    shared_->interval = interval;
    shared_->handler = std::move(handler);
}

DispatchTimer::~DispatchTimer() { cancel(); }

void DispatchTimer::resume() {
    if (shared_->resumed.exchange(true) || shared_->cancelled.load()) return;
    shared_->next = shared_->queue->clock().now() + shared_->start;
    Shared::schedule(shared_);
}

void DispatchTimer::cancel() { shared_->cancelled.store(true); }

bool DispatchTimer::isCancelled() const { return shared_->cancelled.load(); }

// ---- Signal source ----

struct SignalSource::Shared {
    int signalNumber;
    DispatchQueue* queue;
    Closure handler;
    std::atomic<bool> cancelled{false};
};

namespace {
int signalPipe[2] = {-1, -1};
std::mutex signalMutex;
std::multimap<int, std::weak_ptr<SignalSource::Shared>>& signalSources() {
    static auto* sources = new std::multimap<int, std::weak_ptr<SignalSource::Shared>>();
    return *sources;
}

extern "C" void tonaviSignalHandler(int signo) {
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(signo);
    ssize_t ignored = write(signalPipe[1], &byte, 1);
    (void)ignored;
    errno = saved;
}

// One reader thread for the whole process turns pipe bytes into queue work.
void startSignalReader() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (pipe(signalPipe) != 0) return;
        fcntl(signalPipe[0], F_SETFD, FD_CLOEXEC);
        fcntl(signalPipe[1], F_SETFD, FD_CLOEXEC);
        fcntl(signalPipe[1], F_SETFL, O_NONBLOCK);
        std::thread([] {
            for (;;) {
                unsigned char byte = 0;
                ssize_t n = read(signalPipe[0], &byte, 1);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) return;
                std::vector<std::shared_ptr<SignalSource::Shared>> targets;
                {
                    std::lock_guard<std::mutex> guard(signalMutex);
                    auto range = signalSources().equal_range(byte);
                    for (auto it = range.first; it != range.second; ++it) {
                        if (auto s = it->second.lock()) targets.push_back(std::move(s));
                    }
                }
                for (auto& s : targets) {
                    if (s->cancelled.load()) continue;
                    s->queue->async([s] {
                        if (!s->cancelled.load()) s->handler();
                    });
                }
            }
        }).detach();
    });
}
}  // namespace

SignalSource::SignalSource(int signalNumber, DispatchQueue& queue, Closure handler)
    : shared_(std::make_shared<Shared>()) {
    shared_->signalNumber = signalNumber;
    shared_->queue = &queue;
    shared_->handler = std::move(handler);
}

SignalSource::~SignalSource() { cancel(); }

void SignalSource::resume() {
    startSignalReader();
    {
        std::lock_guard<std::mutex> guard(signalMutex);
        signalSources().emplace(shared_->signalNumber, shared_);
    }
    struct sigaction action {};
    action.sa_handler = tonaviSignalHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(shared_->signalNumber, &action, nullptr);
}

void SignalSource::cancel() { shared_->cancelled.store(true); }

// ---- Process exit source ----

struct ProcessExitSource::Shared {
    int pid = -1;
    DispatchQueue* queue = nullptr;
    Closure handler;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> fired{false};
    int wakePipe[2] = {-1, -1};
    std::thread watcher;

    static void fire(const std::shared_ptr<Shared>& self) {
        if (self->cancelled.load() || self->fired.exchange(true)) return;
        self->queue->async([self] {
            if (!self->cancelled.load()) self->handler();
        });
    }
};

namespace {
std::atomic<bool> pidDescriptorsAllowed{true};

int openPidFD(int pid) {
#ifdef SYS_pidfd_open
    if (pidDescriptorsAllowed.load())
        return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#endif
    errno = ENOSYS;
    return -1;
}

// Without a pid descriptor. A child that has ended stays a zombie until its handler reaps it, and a
// zombie still answers kill(pid, 0): so a child is asked with waitid, which leaves it to be reaped,
// and only another process is probed with a signal.
bool hasEnded(int pid) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0)
        return info.si_pid == pid;
    if (errno != ECHILD)
        return false;
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}
}  // namespace

void ProcessExitSource::setPidDescriptorsForTesting(bool allowed) { pidDescriptorsAllowed.store(allowed); }

ProcessExitSource::ProcessExitSource(int pid, DispatchQueue& queue, Closure handler)
    : shared_(std::make_shared<Shared>()) {
    shared_->pid = pid;
    shared_->queue = &queue;
    shared_->handler = std::move(handler);
}

ProcessExitSource::~ProcessExitSource() {
    cancel();
    if (shared_->watcher.joinable()) shared_->watcher.join();
    for (int fd : shared_->wakePipe)
        if (fd >= 0) ::close(fd);
}

void ProcessExitSource::resume() {
    if (shared_->watcher.joinable() || shared_->cancelled.load()) return;
    if (::pipe2(shared_->wakePipe, O_CLOEXEC) != 0) return;
    int pidFD = openPidFD(shared_->pid);
    if (pidFD < 0 && errno == ESRCH) {
        // No watch thread: the pipe would only raise SIGPIPE at cancel.
        for (int& fd : shared_->wakePipe) {
            ::close(fd);
            fd = -1;
        }
        Shared::fire(shared_);
        return;
    }
    if (pidFD >= 0) ::fcntl(pidFD, F_SETFD, FD_CLOEXEC);
    shared_->watcher = std::thread([s = shared_, pidFD] {
        pthread_setname_np(pthread_self(), "tonavi.pidwatch");
        for (;;) {
            pollfd fds[2] = {{s->wakePipe[0], POLLIN, 0}, {pidFD, POLLIN, 0}};
            // Without a pid descriptor (an old kernel) the process is looked at ten times a second.
            int n = ::poll(fds, pidFD >= 0 ? 2 : 1, pidFD >= 0 ? -1 : 100);
            if (n < 0 && errno == EINTR) continue;
            if (s->cancelled.load() || (n > 0 && fds[0].revents != 0)) break;
            const bool gone = pidFD >= 0 ? (n > 0 && fds[1].revents != 0) : hasEnded(s->pid);
            if (gone) {
                Shared::fire(s);
                break;
            }
        }
        if (pidFD >= 0) ::close(pidFD);
    });
}

void ProcessExitSource::cancel() {
    if (shared_->cancelled.exchange(true)) return;
    if (shared_->wakePipe[1] >= 0) {
        char byte = 1;
        ssize_t ignored = ::write(shared_->wakePipe[1], &byte, 1);
        (void)ignored;
    }
}

bool ProcessExitSource::isCancelled() const { return shared_->cancelled.load(); }

}  // namespace tonavi
