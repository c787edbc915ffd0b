#pragma once
// One tap worker as a child process: its stdin and stdout pipes, its exit, and the signals that end
// it. Every descriptor is close-on-exec, and the child gets only its two pipe ends and /dev/null
// for stderr, so no worker keeps another worker's pipe (or the control socket) open.

#include "base/Dispatch.hpp"

#include <atomic>
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
    void terminate() const { signal(15); }
    void kill() const { signal(9); }

    // Writes all of `bytes` to the child's stdin; false when the pipe is closed or broken. Never
    // raises SIGPIPE, also in a process that does not ignore it. Callers serialise their writes.
    bool write(std::string_view bytes);
    // Closes the child's stdin: the end of its input.
    void closeInput();
    // Starts the reader thread ("tonavi.tap-read"). At most once.
    void startReading(ReadHandler handler);
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
    int inputFD_ = -1;
    struct Reader;
    std::shared_ptr<Reader> reader_; // made at launch, owns the stdout pipe
    std::thread readerThread_;
    mutable std::mutex mutex_; // leaf lock around the reaped status and the signals
    mutable std::optional<int> status_;
    std::unique_ptr<ProcessExitSource> exitSource_;
    std::shared_ptr<Adoption> adoption_;
};

} // namespace tonavi
