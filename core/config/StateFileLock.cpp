#include "core/config/StateFileLock.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tonavi {

StateFileLock::StateFileLock(const std::filesystem::path& path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0)
        return;
    int result;
    do {
        result = ::flock(fd_, LOCK_EX);
    } while (result != 0 && errno == EINTR);
}

StateFileLock::~StateFileLock() {
    if (fd_ < 0)
        return;
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

} // namespace tonavi
