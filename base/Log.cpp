#include "base/Log.hpp"

#include "base/Paths.hpp"

#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tonavi::Log {

namespace {
struct LogState {
    std::mutex lock;
    std::string fileURL;
    bool resolved = false;
    int linesSinceSizeCheck = 0;
};

LogState& state() {
    static auto* s = new LogState();  // never destroyed: logging may run during exit
    return *s;
}

const std::string& resolvedPathLocked(LogState& s) {
    if (!s.resolved) {
        std::string dir = Paths::logDirectory();
        Paths::createDirectories(dir);  // a failure shows up later as a dropped line
        s.fileURL = dir + "/Tonavi-service.log";
        s.resolved = true;
    }
    return s.fileURL;
}

std::string timestamp() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return buf;
}

bool writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// The log's path with its extension replaced by "old.log": Tonavi-service.old.log.
std::string rotatedPath(const std::string& path) {
    auto slash = path.find_last_of('/');
    auto dot = path.find_last_of('.');
    std::string stem = (dot != std::string::npos && (slash == std::string::npos || dot > slash))
                           ? path.substr(0, dot)
                           : path;
    return stem + ".old.log";
}

void rotationCheckLocked(LogState& s, const std::string& path) {
    if (++s.linesSinceSizeCheck < linesPerSizeCheck) return;
    s.linesSinceSizeCheck = 0;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || st.st_size < 0) return;
    if (static_cast<std::uint64_t>(st.st_size) < rotationBytes) return;
    std::string old = rotatedPath(path);
    ::unlink(old.c_str());
    ::rename(path.c_str(), old.c_str());
}

// Creates the file whole: a temporary beside it, then a rename, so no reader sees half a line.
void writeAtomically(const std::string& path, const std::string& bytes) {
    std::string tmp = path + ".tmp-" + std::to_string(::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    bool ok = writeAll(fd, bytes);
    ::close(fd);
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) ::unlink(tmp.c_str());
}
}  // namespace

void info(std::string_view message) {
    try {
        LogState& s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        std::string line = timestamp();
        line += ' ';
        line.append(message);
        line += '\n';
        if (::isatty(2)) writeAll(2, line);
        const std::string& path = resolvedPathLocked(s);
        rotationCheckLocked(s, path);
        int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd >= 0) {
            ::lseek(fd, 0, SEEK_END);
            writeAll(fd, line);
            ::close(fd);
        } else {
            writeAtomically(path, line);
        }
    } catch (...) {
        // Logging never throws: a line that cannot be built is dropped.
    }
}

std::string filePath() {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return resolvedPathLocked(s);
}

void setFilePathForTesting(const std::string& path) {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.fileURL = path;
    s.resolved = true;
    s.linesSinceSizeCheck = 0;
}

}  // namespace tonavi::Log
