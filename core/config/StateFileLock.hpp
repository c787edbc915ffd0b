#pragma once
// Holds an exclusive flock on a lock file for its lifetime. When the file cannot be opened the
// guard holds nothing and says so: the lock is an aid, never a reason to refuse work.

#include <filesystem>

namespace tonavi {

class StateFileLock {
  public:
    explicit StateFileLock(const std::filesystem::path& path);
    ~StateFileLock();
    StateFileLock(const StateFileLock&) = delete;
    StateFileLock& operator=(const StateFileLock&) = delete;

    bool isHeld() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

} // namespace tonavi
