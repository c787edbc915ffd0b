#pragma once
// Counts writes of the configuration file while a load runs. The store replaces "state.json" by renaming
// a finished temporary file over it, so one save is one rename into the folder; a write in place (a first
// save, another writer) shows as the file being closed after writing. Linux only: it uses inotify.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tonavi {

class ConfigWriteWatcher {
  public:
    using Clock = std::chrono::steady_clock;

    // Watches `folder` for writes of the file `name`. Throws std::runtime_error when the folder cannot be
    // watched.
    ConfigWriteWatcher(const std::string& folder, std::string name);
    ~ConfigWriteWatcher();
    ConfigWriteWatcher(const ConfigWriteWatcher&) = delete;
    ConfigWriteWatcher& operator=(const ConfigWriteWatcher&) = delete;

    // Times of every write seen so far.
    std::vector<Clock::time_point> writes() const;
    std::size_t writesSince(Clock::time_point start) const;

    // Waits until neither a write nor `since` lies within the last `quiet`, or until `limit` has passed;
    // true when it went quiet.
    bool waitForQuiet(Clock::time_point since, Clock::duration quiet, Clock::duration limit) const;

  private:
    void readLoop();

    std::string name_;
    int fd_ = -1;
    int wakePipe_[2] = {-1, -1};
    mutable std::mutex writesLock_; // guards writes_
    mutable std::condition_variable wrote_;
    std::vector<Clock::time_point> writes_;
    std::thread reader_; // "load.config-watch": blocks in poll on the inotify descriptor
};

} // namespace tonavi
