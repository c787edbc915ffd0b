#include "core/config/StateFileLock.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tonavi {

StateFileLock::StateFileLock(const std::filesystem::path& path, Wait wait) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0)
        return;
    int result;
    do {
        result = ::flock(fd_, wait == Wait::never ? LOCK_EX | LOCK_NB : LOCK_EX);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        contended_ = errno == EWOULDBLOCK;
        ::close(fd_);
        fd_ = -1;
    }
}

StateFileLock::~StateFileLock() {
    if (fd_ < 0)
        return;
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

} // namespace tonavi
