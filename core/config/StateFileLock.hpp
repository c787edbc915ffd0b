#pragma once
// Holds an exclusive flock on a lock file for its lifetime. When the file cannot be opened the
// guard holds nothing and says so: the lock is an aid, never a reason to refuse work.

#include <filesystem>

namespace tonavi {

class StateFileLock {
  public:
    enum class Wait { untilFree, never };
    // With Wait::never the guard gives up at once when another holder has the lock (isHeld false).
    explicit StateFileLock(const std::filesystem::path& path, Wait wait = Wait::untilFree);
    ~StateFileLock();
    StateFileLock(const StateFileLock&) = delete;
    StateFileLock& operator=(const StateFileLock&) = delete;

    bool isHeld() const { return fd_ >= 0; }
    // The lock is held by someone else: a write of theirs may be in progress.
    bool isContended() const { return contended_; }

  private:
    int fd_ = -1;
    bool contended_ = false;
};

} // namespace tonavi
