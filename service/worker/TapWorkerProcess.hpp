#pragma once
// One tap worker as a child process: its stdin and stdout pipes, its exit, and the signals that end
// it. Every descriptor is close-on-exec, and the child gets only its two pipe ends and /dev/null
// for stderr, so no worker keeps another worker's pipe (or the control socket) open.
//
// Writing to the child never blocks: a child that stops reading (stopped, hung in a plug-in) must
// not hold up whoever writes, which is often the runtime's serial queue. Our end of its stdin is
// non-blocking, and what the pipe does not take at once waits in the outbox: the rest of a line
// already begun (it must go out whole, or the child would read a torn line), then at most one whole
// line, the newest, since every line we send supersedes the one before. The reader thread sends the
// outbox as the pipe drains, and tells once when the child has taken nothing for the stall limit
// while something waited.

#include "base/Dispatch.hpp"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tonavi {

class TapWorkerProcess {
  public:
    // Called once, on `queue`, after the child has ended and been reaped. The status is the exit
    // code, or the signal number for a child ended by a signal.
    using TerminationHandler = std::function<void(int status)>;
    // Bytes as they arrive from the child's stdout; called on the reader thread. An empty view
    // means end of file, after which nothing more comes.
    using ReadHandler = std::function<void(std::string_view bytes)>;
    // The child took nothing for the stall limit while lines waited; called once, on the reader thread.
    using StallHandler = std::function<void()>;

    // Starts `executable` with `arguments` (without argv[0], which is the executable). Null with
    // `error` set when the launch fails; the termination handler is then never called.
    static std::shared_ptr<TapWorkerProcess> launch(const std::string& executable,
                                                    const std::vector<std::string>& arguments,
                                                    DispatchQueue& queue, TerminationHandler onTermination,
                                                    std::string& error);
    ~TapWorkerProcess();
    TapWorkerProcess(const TapWorkerProcess&) = delete;
    TapWorkerProcess& operator=(const TapWorkerProcess&) = delete;

    int pid() const { return pid_; }
    // False once the child has ended, even before its termination handler has run.
    bool isRunning() const;
    std::optional<int> terminationStatus() const;
    // SIGTERM, then SIGCONT so that a stopped child acts on it at once.
    void terminate() const;
    void kill() const { signal(9); }

    // Sends `line` (one whole line with its line feed), or keeps it as the newest waiting line,
    // replacing one that has not begun. False only when the pipe is closed or broken. Never blocks
    // and never raises SIGPIPE, also in a process that does not ignore it.
    bool sendLatest(std::string line);
    // The last line the child gets (a stop): a waiting line that has not begun is dropped, since
    // the child will not need it. False when the pipe cannot take `line` whole now (a line already
    // begun still waits, or the pipe is full), closed or broken; the caller then uses signals.
    bool sendFinal(std::string_view line);
    // How long lines have waited without the child taking a byte; nothing when none waits.
    std::optional<std::chrono::steady_clock::duration> blockedFor() const;
    // Starts the reader thread ("tonavi.tap-read"). At most once. `onStall` may be empty.
    void startReading(ReadHandler handler, StallHandler onStall = {},
                      std::chrono::milliseconds stallLimit = std::chrono::seconds(3));
    // Stops delivering reads; returns when the reader no longer calls the handler (at once when
    // called from the handler itself).
    void clearReader();

    // Whether the exit watch outlived this object; see the adoption in the .cpp.
    struct Adoption {
        bool adopted = false;
        bool finished = false;
    };

  private:
    TapWorkerProcess() = default;
    void signal(int signalNumber) const;
    // Under `mutex_`: reaps the child if it has ended and records its status.
    void reapLocked(bool wait) const;

    int pid_ = -1;
    struct Outbox;
    std::shared_ptr<Outbox> outbox_; // made at launch, owns our end of the stdin pipe
    struct Reader;
    std::shared_ptr<Reader> reader_; // made at launch, owns the stdout pipe
    std::thread readerThread_;
    mutable std::mutex mutex_; // leaf lock around the reaped status and the signals
    mutable std::optional<int> status_;
    std::unique_ptr<ProcessExitSource> exitSource_;
    std::shared_ptr<Adoption> adoption_;
};

} // namespace tonavi
