#include "service/worker/TapWorkerProcess.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tonavi {

namespace {

void closeFD(int& fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

constexpr auto lastWordsWait = std::chrono::milliseconds(250);

// Exit watches of children whose process object went away first. The watch's own handler, which
// reaps the child, releases it; a handler that ran before the adoption marks the child finished, and
// the adoption then drops the watch at once.
class AdoptedWatches {
  public:
    void adopt(const std::shared_ptr<TapWorkerProcess::Adoption>& child, std::unique_ptr<ProcessExitSource> watch) {
        std::unique_lock guard(mutex_);
        if (child->finished) {
            guard.unlock();
            return; // `watch` goes here; its thread has ended
        }
        child->adopted = true;
        watches_[child.get()] = std::move(watch);
    }
    void finish(const std::shared_ptr<TapWorkerProcess::Adoption>& child) {
        std::unique_ptr<ProcessExitSource> done;
        {
            std::lock_guard guard(mutex_);
            child->finished = true;
            if (auto it = watches_.find(child.get()); it != watches_.end()) {
                done = std::move(it->second);
                watches_.erase(it);
            }
        }
    }

  private:
    std::mutex mutex_;
    std::map<const TapWorkerProcess::Adoption*, std::unique_ptr<ProcessExitSource>> watches_;
};

AdoptedWatches& adoptedWatches() {
    static auto* watches = new AdoptedWatches();
    return *watches;
}

// One non-blocking write. A child that died leaves a broken pipe: its SIGPIPE is kept on this thread
// and swallowed, so the caller sees EPIPE instead of a dead process. EINTR is retried.
ssize_t writeWithoutSIGPIPE(int fd, std::string_view bytes) {
    sigset_t pipeOnly, previous;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
    ssize_t n;
    do {
        n = ::write(fd, bytes.data(), bytes.size());
    } while (n < 0 && errno == EINTR);
    const int error = errno;
    if (n < 0 && error == EPIPE) {
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE) && !sigismember(&previous, SIGPIPE)) {
            timespec zero{0, 0};
            while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = error;
    return n;
}

int statusFrom(int waitStatus) {
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return WTERMSIG(waitStatus);
    return -1;
}

} // namespace

// Lines on their way to the child, and our non-blocking end of its stdin. Shared with the reader
// thread, which flushes it as the pipe drains. `mutex` ("outboxLock") is a leaf lock, held only
// around non-blocking writes.
struct TapWorkerProcess::Outbox {
    using Clock = std::chrono::steady_clock;
    int fd = -1;
    std::mutex mutex;
    std::string begun;   // the rest of a line partly written
    std::string newest;  // a whole line not begun; a newer one replaces it
    Clock::time_point lastProgress{}; // the last write that took bytes while lines waited
    bool broken = false;

    bool waitingLocked() const { return !begun.empty() || !newest.empty(); }
    // Writes what the pipe takes now.
    void flushLocked() {
        while (!broken) {
            if (begun.empty()) {
                if (newest.empty())
                    return;
                begun.swap(newest);
                newest.clear();
            }
            const ssize_t n = writeWithoutSIGPIPE(fd, begun);
            if (n > 0) {
                begun.erase(0, static_cast<std::size_t>(n));
                lastProgress = Clock::now();
            } else if (n < 0 && errno == EAGAIN) {
                return;
            } else {
                broken = true;
                begun.clear();
                newest.clear();
            }
        }
    }
    ~Outbox() { closeFD(fd); }
};

// The reader thread's own state, shared so that a thread that outlives its process object (a
// reader cleared from its own handler) touches nothing freed.
struct TapWorkerProcess::Reader {
    int fd = -1;
    int wake[2] = {-1, -1};
    std::atomic<bool> cleared{false};
    std::atomic<bool> started{false};
    std::mutex mutex;
    std::condition_variable ended;
    bool finished = false;

    void finish() {
        std::lock_guard guard(mutex);
        finished = true;
        ended.notify_all();
    }
    ~Reader() {
        closeFD(fd);
        closeFD(wake[0]);
        closeFD(wake[1]);
    }
};

std::shared_ptr<TapWorkerProcess> TapWorkerProcess::launch(const std::string& executable,
                                                           const std::vector<std::string>& arguments,
                                                           DispatchQueue& queue, TerminationHandler onTermination,
                                                           std::string& error) {
    int input[2] = {-1, -1};
    int output[2] = {-1, -1};
    auto reader = std::make_shared<Reader>();
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0 ||
        ::pipe2(reader->wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        closeFD(input[0]), closeFD(input[1]), closeFD(output[0]), closeFD(output[1]);
        return nullptr;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    // The service ignores SIGTERM until its own source takes it over; a worker must die of it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGTERM);
    sigset_t emptyMask;
    sigemptyset(&emptyMask);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &emptyMask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    std::vector<std::string> argvStrings;
    argvStrings.push_back(executable);
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argvStrings)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, executable.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    closeFD(input[0]);
    closeFD(output[1]);
    if (rc != 0) {
        error = std::strerror(rc);
        closeFD(input[1]);
        closeFD(output[0]);
        return nullptr;
    }

    std::shared_ptr<TapWorkerProcess> process(new TapWorkerProcess());
    process->pid_ = pid;
    // Only our end is non-blocking: the child reads its stdin as an ordinary blocking file.
    ::fcntl(input[1], F_SETFL, ::fcntl(input[1], F_GETFL) | O_NONBLOCK);
    process->outbox_ = std::make_shared<Outbox>();
    process->outbox_->fd = input[1];
    reader->fd = output[0];
    process->reader_ = std::move(reader);
    std::weak_ptr<TapWorkerProcess> weak = process;
    auto adoption = process->adoption_ = std::make_shared<Adoption>();
    process->exitSource_ = std::make_unique<ProcessExitSource>(
        pid, queue, [weak, onTermination = std::move(onTermination), pid, adoption] {
            auto self = weak.lock();
            int status = -1;
            // The child's last words (a "failure" line before its exit) are read before its end
            // is reported. A grandchild holding the pipe open must not delay that for long.
            if (self && self->reader_->started.load()) {
                std::unique_lock guard(self->reader_->mutex);
                self->reader_->ended.wait_for(guard, lastWordsWait, [&] { return self->reader_->finished; });
            }
            if (self) {
                std::lock_guard guard(self->mutex_);
                self->reapLocked(true);
                status = self->status_.value_or(-1);
            } else {
                int waitStatus = 0;
                if (::waitpid(pid, &waitStatus, 0) == pid)
                    status = statusFrom(waitStatus);
                // Its process object is gone: this watch has done its last work.
                adoptedWatches().finish(adoption);
            }
            if (onTermination)
                onTermination(status);
        });
    process->exitSource_->resume();
    return process;
}

TapWorkerProcess::~TapWorkerProcess() {
    clearReader();
    bool reaped;
    {
        std::lock_guard guard(mutex_);
        reapLocked(false);
        reaped = status_.has_value();
    }
    // A child still running keeps its watch, whose handler reaps it by pid, so no zombie is left.
    if (exitSource_ && !reaped)
        adoptedWatches().adopt(adoption_, std::move(exitSource_));
}

void TapWorkerProcess::reapLocked(bool wait) const {
    if (status_)
        return;
    int waitStatus = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid_, &waitStatus, wait ? 0 : WNOHANG);
    } while (rc < 0 && errno == EINTR);
    if (rc == pid_)
        status_ = statusFrom(waitStatus);
    else if (rc < 0 && errno == ECHILD)
        status_ = -1; // reaped by somebody else; it is gone all the same
}

bool TapWorkerProcess::isRunning() const {
    std::lock_guard guard(mutex_);
    if (status_)
        return false;
    // Looks without reaping, so that the exit source's handler still gets the status.
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return false;
    return info.si_pid == 0;
}

std::optional<int> TapWorkerProcess::terminationStatus() const {
    std::lock_guard guard(mutex_);
    return status_;
}

void TapWorkerProcess::signal(int signalNumber) const {
    // Under the lock and before reaping, the pid cannot belong to another process yet.
    std::lock_guard guard(mutex_);
    if (!status_)
        ::kill(pid_, signalNumber);
}

void TapWorkerProcess::terminate() const {
    signal(SIGTERM);
    signal(SIGCONT);
}

bool TapWorkerProcess::sendLatest(std::string line) {
    bool wake;
    {
        std::lock_guard guard(outbox_->mutex);
        if (outbox_->broken)
            return false;
        const bool wasWaiting = outbox_->waitingLocked();
        outbox_->newest = std::move(line);
        outbox_->flushLocked();
        if (outbox_->broken)
            return false;
        wake = !wasWaiting && outbox_->waitingLocked();
        if (wake)
            outbox_->lastProgress = Outbox::Clock::now();
    }
    // The reader thread watches the pipe for room only while lines wait: tell it they do.
    if (wake) {
        char byte = 0;
        ssize_t ignored = ::write(reader_->wake[1], &byte, 1);
        (void)ignored;
    }
    return true;
}

bool TapWorkerProcess::sendFinal(std::string_view line) {
    std::lock_guard guard(outbox_->mutex);
    outbox_->newest.clear();
    if (outbox_->broken || !outbox_->begun.empty())
        return false;
    const ssize_t n = writeWithoutSIGPIPE(outbox_->fd, line);
    if (n == static_cast<ssize_t>(line.size()))
        return true;
    // Short lines go whole or not at all on a pipe; a longer one cut short would leave the child a
    // torn line, so its rest still goes out as the pipe drains.
    if (n > 0) {
        outbox_->begun.assign(line.substr(static_cast<std::size_t>(n)));
        outbox_->lastProgress = Outbox::Clock::now();
        return true;
    }
    if (errno != EAGAIN)
        outbox_->broken = true;
    return false;
}

std::optional<std::chrono::steady_clock::duration> TapWorkerProcess::blockedFor() const {
    std::lock_guard guard(outbox_->mutex);
    if (!outbox_->waitingLocked())
        return std::nullopt;
    return Outbox::Clock::now() - outbox_->lastProgress;
}

void TapWorkerProcess::startReading(ReadHandler handler, StallHandler onStall,
                                    std::chrono::milliseconds stallLimit) {
    auto reader = reader_;
    if (reader->started.exchange(true))
        return;
    readerThread_ = std::thread([reader, outbox = outbox_, handler = std::move(handler),
                                 onStall = std::move(onStall), stallLimit] {
        pthread_setname_np(pthread_self(), "tonavi.tap-read");
        struct Finish {
            Reader& reader;
            ~Finish() { reader.finish(); }
        } finish{*reader};
        char buffer[4096];
        bool stallReported = false;
        for (;;) {
            // While lines wait for the child, watch its stdin for room and time the wait.
            int timeout = -1;
            bool waiting, stalled = false;
            {
                std::lock_guard guard(outbox->mutex);
                waiting = outbox->waitingLocked() && !outbox->broken;
                if (waiting && !stallReported) {
                    const auto blocked = Outbox::Clock::now() - outbox->lastProgress;
                    stalled = stallReported = blocked >= stallLimit;
                    if (!stalled)
                        timeout = static_cast<int>(
                            std::chrono::ceil<std::chrono::milliseconds>(stallLimit - blocked).count());
                }
            }
            if (stalled && onStall)
                onStall();
            pollfd fds[3] = {{reader->fd, POLLIN, 0}, {reader->wake[0], POLLIN, 0}, {waiting ? outbox->fd : -1, POLLOUT, 0}};
            int n = ::poll(fds, 3, timeout);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 || reader->cleared.load())
                return;
            if (fds[1].revents != 0)
                while (::read(reader->wake[0], buffer, sizeof buffer) > 0) {
                }
            if (fds[2].revents != 0) {
                std::lock_guard guard(outbox->mutex);
                outbox->flushLocked();
                if (!outbox->waitingLocked())
                    stallReported = false;
            }
            if (fds[0].revents == 0)
                continue;
            ssize_t got = ::read(reader->fd, buffer, sizeof buffer);
            if (got < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            if (reader->cleared.load())
                return;
            if (got <= 0) {
                handler({});
                return;
            }
            handler(std::string_view(buffer, static_cast<std::size_t>(got)));
        }
    });
}

void TapWorkerProcess::clearReader() {
    if (!reader_->started.load())
        return;
    reader_->cleared.store(true);
    char byte = 1;
    ssize_t ignored = ::write(reader_->wake[1], &byte, 1);
    (void)ignored;
    if (!readerThread_.joinable())
        return;
    if (readerThread_.get_id() == std::this_thread::get_id())
        readerThread_.detach();
    else
        readerThread_.join();
}

} // namespace tonavi
