#include "platform/sim/SimWorldFile.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/Paths.hpp"

namespace tonavi {

namespace {

SimWorldFile::Stamp stampOf(const struct stat& st) {
    return {static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
            static_cast<long long>(st.st_mtim.tv_sec) * 1'000'000'000LL + st.st_mtim.tv_nsec,
            static_cast<long long>(st.st_size)};
}

std::string parentOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? std::string(slash == 0 ? "/" : ".")
                                                    : path.substr(0, slash);
}

// Holds an exclusive flock on the world's lock file for its lifetime.
class ExclusiveLock {
  public:
    explicit ExclusiveLock(const std::string& path) {
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) {
            error_ = "cannot open " + path + ": " + std::strerror(errno);
            return;
        }
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno == EINTR)
                continue;
            error_ = "cannot lock " + path + ": " + std::strerror(errno);
            return;
        }
    }
    ~ExclusiveLock() {
        if (fd_ >= 0)
            ::close(fd_); // closing releases the lock
    }
    const std::string& error() const { return error_; }

  private:
    int fd_ = -1;
    std::string error_;
};

} // namespace

SimWorldFile::SimWorldFile(std::string path) : path_(std::move(path)) {}

std::optional<SimWorldFile::Stamp> SimWorldFile::stamp() const {
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0)
        return std::nullopt;
    return stampOf(st);
}

std::optional<SimWorld> SimWorldFile::read(std::string& error, Stamp* stamp) const {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot open the world " + path_ + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat st {};
    std::string text;
    if (::fstat(fd, &st) == 0) {
        text.resize(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < text.size()) {
            const auto n = ::read(fd, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<std::size_t>(n);
        }
        text.resize(done);
    }
    ::close(fd);
    if (stamp)
        *stamp = stampOf(st);
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        error = "the world " + path_ + " is not valid JSON";
        return std::nullopt;
    }
    std::string why;
    auto world = simWorldFromJSON(json, why);
    if (!world)
        error = "the world " + path_ + " is damaged: " + why;
    return world;
}

std::string SimWorldFile::update(const std::function<std::string(SimWorld&)>& edit, SimWorld* written,
                                 Stamp* stamp) {
    ExclusiveLock lock(path_ + ".lock");
    if (!lock.error().empty())
        return lock.error();
    std::string error;
    auto world = read(error);
    if (!world)
        return error;
    if (auto why = edit(*world); !why.empty())
        return why;
    world->generation += 1;
    if (auto why = writeLocked(*world, stamp); !why.empty())
        return why;
    if (written)
        *written = std::move(*world);
    return {};
}

std::string SimWorldFile::create(const SimWorld& world, bool replace) {
    if (!Paths::createDirectories(parentOf(path_)))
        return "cannot create the folder of " + path_;
    ExclusiveLock lock(path_ + ".lock");
    if (!lock.error().empty())
        return lock.error();
    SimWorld copy = world;
    if (struct stat st{}; ::stat(path_.c_str(), &st) == 0) {
        if (!replace)
            return "a world already exists at " + path_;
        // Keep counting from the old generation so that watchers see the change.
        std::string ignored;
        if (auto old = read(ignored))
            copy.generation = std::max(copy.generation, old->generation + 1);
    }
    return writeLocked(copy, nullptr);
}

std::string SimWorldFile::writeLocked(const SimWorld& world, Stamp* stamp) {
    const std::string text = simWorldToJSON(world).dump(4) + "\n";
    const std::string temp = path_ + ".tmp." + std::to_string(::getpid());
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return "cannot write " + temp + ": " + std::strerror(errno);
    std::size_t done = 0;
    while (done < text.size()) {
        const auto n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const std::string why = std::strerror(errno);
            ::close(fd);
            ::unlink(temp.c_str());
            return "cannot write " + temp + ": " + why;
        }
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (::rename(temp.c_str(), path_.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        ::unlink(temp.c_str());
        return "cannot replace " + path_ + ": " + why;
    }
    if (stamp) {
        if (auto s = this->stamp())
            *stamp = *s;
    }
    return {};
}

} // namespace tonavi
