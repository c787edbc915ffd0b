#include "tools/load/ConfigWriteWatcher.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <unistd.h>

namespace tonavi {

ConfigWriteWatcher::ConfigWriteWatcher(const std::string& folder, std::string name)
    : name_(std::move(name)) {
    fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd_ < 0)
        throw std::runtime_error(std::string("inotify: ") + std::strerror(errno));
    if (::inotify_add_watch(fd_, folder.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        const int error = errno;
        ::close(fd_);
        throw std::runtime_error("cannot watch " + folder + ": " + std::strerror(error));
    }
    if (::pipe2(wakePipe_, O_CLOEXEC) != 0) {
        ::close(fd_);
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    reader_ = std::thread([this] {
        ::pthread_setname_np(::pthread_self(), "load.config-watch");
        readLoop();
    });
}

ConfigWriteWatcher::~ConfigWriteWatcher() {
    const char stop = 0;
    (void)!::write(wakePipe_[1], &stop, 1);
    reader_.join();
    ::close(fd_);
    ::close(wakePipe_[0]);
    ::close(wakePipe_[1]);
}

void ConfigWriteWatcher::readLoop() {
    alignas(inotify_event) char buffer[8192];
    for (;;) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents != 0)
            return;
        const ssize_t n = ::read(fd_, buffer, sizeof buffer);
        if (n <= 0)
            continue;
        const auto now = Clock::now();
        for (ssize_t offset = 0; offset < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            if (event->len > 0 && name_ == event->name) {
                std::lock_guard lock(writesLock_);
                writes_.push_back(now);
                wrote_.notify_all();
            }
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

std::vector<ConfigWriteWatcher::Clock::time_point> ConfigWriteWatcher::writes() const {
    std::lock_guard lock(writesLock_);
    return writes_;
}

std::size_t ConfigWriteWatcher::writesSince(Clock::time_point start) const {
    std::lock_guard lock(writesLock_);
    std::size_t count = 0;
    for (const auto& at : writes_)
        count += at >= start ? 1 : 0;
    return count;
}

bool ConfigWriteWatcher::waitForQuiet(Clock::time_point since, Clock::duration quiet, Clock::duration limit) const {
    const auto deadline = Clock::now() + limit;
    std::unique_lock lock(writesLock_);
    for (;;) {
        const auto last = writes_.empty() ? since : std::max(since, writes_.back());
        const auto quietAt = last + quiet;
        if (Clock::now() >= quietAt)
            return true;
        if (Clock::now() >= deadline)
            return false;
        wrote_.wait_until(lock, std::min(quietAt, deadline));
    }
}

} // namespace tonavi
