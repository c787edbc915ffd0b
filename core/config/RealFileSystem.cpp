#include "core/config/RealFileSystem.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace tonavi {

namespace {

[[noreturn]] void raise(int error, const std::string& operation, const FileSystem::Path& path) {
    throw std::system_error(error, std::generic_category(), operation + " " + path.string());
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now and reports the error close gives (a deferred write error shows up here).
    int close() {
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

  private:
    int fd_;
};

// mkostemp replaces the six X with letters and digits.
constexpr char temporarySuffix[] = ".XXXXXX";
constexpr std::size_t temporaryRandomLength = sizeof temporarySuffix - 2;

} // namespace

std::shared_ptr<FileSystem> FileSystem::real() {
    static const std::shared_ptr<FileSystem> shared = std::make_shared<RealFileSystem>();
    return shared;
}

bool RealFileSystem::exists(const Path& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

std::string RealFileSystem::read(const Path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        raise(errno, "open", path);
    std::string out;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            raise(errno, "read", path);
        }
        if (n == 0)
            break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

void RealFileSystem::writeAtomically(const Path& path, std::string_view bytes) {
    std::string temporary = path.string() + temporarySuffix;
    FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (fd.get() < 0)
        raise(errno, "create temporary for", path);
    auto fail = [&](int error, const char* operation) {
        ::unlink(temporary.c_str());
        raise(error, operation, path);
    };
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd.get(), bytes.data() + written, bytes.size() - written);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            fail(errno, "write");
        }
        written += static_cast<std::size_t>(n);
    }
    // Other processes (the user interface) read these files; a private 0600 temporary would pass its
    // mode on to the result.
    if (::fchmod(fd.get(), 0644) != 0)
        fail(errno, "chmod");
    // The data must be on disk before the rename makes it the file, or a power loss could leave an
    // empty file under the final name.
    if (durable_ && ::fdatasync(fd.get()) != 0)
        fail(errno, "sync");
    if (fd.close() != 0)
        fail(errno, "close");
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        fail(errno, "rename");
}

void RealFileSystem::move(const Path& from, const Path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return;
    if (errno != EINVAL && errno != ENOSYS)
        raise(errno, "move " + from.string() + " to", to);
    // File systems without RENAME_NOREPLACE: a hard link fails on an existing name just the same.
    if (::link(from.c_str(), to.c_str()) != 0)
        raise(errno, "move " + from.string() + " to", to);
    ::unlink(from.c_str());
}

void RealFileSystem::replace(const Path& target, const Path& with) {
    if (::rename(with.c_str(), target.c_str()) != 0)
        raise(errno, "replace " + target.string() + " with", with);
}

void RealFileSystem::remove(const Path& path) {
    if (::unlink(path.c_str()) != 0)
        raise(errno, "remove", path);
}

void RealFileSystem::removeWriteLeftovers(const std::vector<Path>& paths) {
    if (paths.empty())
        return;
    const auto isLeftover = [&](const std::string& name) {
        for (const Path& path : paths) {
            const std::string prefix = path.filename().string() + ".";
            if (name.size() == prefix.size() + temporaryRandomLength &&
                name.compare(0, prefix.size(), prefix) == 0 &&
                std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                            [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }))
                return true;
        }
        return false;
    };
    const Path folder = paths.front().parent_path();
    for (const Path& entry : list(folder.empty() ? Path(".") : folder))
        if (isLeftover(entry.filename().string()))
            remove(entry);
}

std::vector<FileSystem::Path> RealFileSystem::list(const Path& directory) {
    std::error_code error;
    std::vector<Path> out;
    std::filesystem::directory_iterator it(directory, error);
    if (error)
        raise(error.value(), "list", directory);
    for (; it != std::filesystem::directory_iterator(); it.increment(error)) {
        if (error)
            raise(error.value(), "list", directory);
        out.push_back(it->path());
    }
    return out;
}

void RealFileSystem::createDirectories(const Path& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error)
        raise(error.value(), "create", path);
}

} // namespace tonavi
