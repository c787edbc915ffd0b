#include "platform/linux/SwayFocusSource.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/Log.hpp"

namespace tonavi {

namespace {

constexpr char magic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr std::uint32_t getTree = 4, subscribe = 2;
constexpr std::uint32_t windowEvent = 0x80000003u;
constexpr std::uint32_t largestMessage = 64u << 20; // a tree of thousands of windows is a few MiB

bool sendMessage(int fd, std::uint32_t type, const std::string& payload) {
    std::string frame(magic, sizeof magic);
    const std::uint32_t length = static_cast<std::uint32_t>(payload.size());
    frame.append(reinterpret_cast<const char*>(&length), 4);
    frame.append(reinterpret_cast<const char*>(&type), 4);
    frame += payload;
    for (std::size_t sent = 0; sent < frame.size();) {
        const ssize_t n = ::send(fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads exactly `size` bytes, waking for a stop on `wakeFD`; false on end, error or stop.
bool readExactly(int fd, int wakeFD, char* out, std::size_t size) {
    for (std::size_t got = 0; got < size;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFD, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (fds[1].revents & POLLIN)
            return false;
        const ssize_t n = ::read(fd, out + got, size - got);
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool readMessage(int fd, int wakeFD, std::uint32_t& type, std::string& payload) {
    char header[14];
    if (!readExactly(fd, wakeFD, header, sizeof header) || std::memcmp(header, magic, sizeof magic) != 0)
        return false;
    std::uint32_t length = 0;
    std::memcpy(&length, header + 6, 4);
    std::memcpy(&type, header + 10, 4);
    if (length > largestMessage)
        return false;
    payload.assign(length, '\0');
    return readExactly(fd, wakeFD, payload.data(), length);
}

std::optional<pid_t> pidOf(const nlohmann::json& node) {
    auto it = node.find("pid");
    if (it == node.end() || !it->is_number_integer() || it->get<std::int64_t>() <= 0)
        return std::nullopt;
    return static_cast<pid_t>(it->get<std::int64_t>());
}

std::optional<pid_t> focusedIn(const nlohmann::json& node, int depth) {
    if (!node.is_object() || depth > 64)
        return std::nullopt;
    if (auto f = node.find("focused"); f != node.end() && f->is_boolean() && f->get<bool>())
        return pidOf(node);
    for (const char* key : {"nodes", "floating_nodes"}) {
        auto children = node.find(key);
        if (children == node.end() || !children->is_array())
            continue;
        for (const auto& child : *children)
            if (auto pid = focusedIn(child, depth + 1))
                return pid;
    }
    return std::nullopt;
}

} // namespace

std::optional<pid_t> SwayFocusSource::focusedPIDInTree(const std::string& json) {
    const auto tree = nlohmann::json::parse(json, nullptr, false);
    return tree.is_discarded() ? std::nullopt : focusedIn(tree, 0);
}

SwayFocusSource::SwayFocusSource(std::string socketPath, ActiveChanged onChange)
    : path_(std::move(socketPath)), onChange_(std::move(onChange)) {
    if (const std::string why = worker_.start("tonavi.swayipc", [this] { run(); }); !why.empty())
        Log::info("tonavi: sway focus source not started: " + why);
}

SwayFocusSource::~SwayFocusSource() {
    worker_.requestStop();
    worker_.join();
}

bool SwayFocusSource::connected() const {
    std::lock_guard guard(mutex_);
    return connected_;
}

std::optional<pid_t> SwayFocusSource::activePID() const {
    std::lock_guard guard(mutex_);
    return active_;
}

void SwayFocusSource::publish(std::optional<pid_t> active) {
    {
        std::lock_guard guard(mutex_);
        active_ = active;
    }
    if (announced_ && lastAnnounced_ == active)
        return;
    announced_ = true;
    lastAnnounced_ = active;
    if (onChange_ && !worker_.stopping())
        onChange_(active);
}

void SwayFocusSource::run() {
    int backoff = 250;
    bool loggedFailure = false;
    while (!worker_.stopping()) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
        if (fd < 0 || path_.size() >= sizeof(address.sun_path) ||
            ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            if (!loggedFailure)
                Log::info("tonavi: the compositor's IPC socket " + path_ + " does not answer (" +
                          std::strerror(errno) + "); trying again in the background");
            loggedFailure = true;
            if (fd >= 0)
                ::close(fd);
            if (!worker_.waitUnlessStopped(backoff))
                break;
            backoff = std::min(backoff * 2, 5000);
            continue;
        }
        Log::info("tonavi: following the focused window through " + path_);
        loggedFailure = false;
        backoff = 250;
        const bool stopped = serve(fd) || worker_.stopping();
        ::close(fd);
        {
            std::lock_guard guard(mutex_);
            connected_ = false;
        }
        publish(std::nullopt);
        if (stopped)
            break;
        Log::info("tonavi: the compositor's IPC socket " + path_ + " closed; reconnecting");
        loggedFailure = true;
        if (!worker_.waitUnlessStopped(backoff))
            break;
    }
}

bool SwayFocusSource::serve(int fd) {
    std::uint32_t type = 0;
    std::string payload;
    if (!sendMessage(fd, getTree, "") || !readMessage(fd, worker_.wakeFD(), type, payload) || type != getTree)
        return worker_.stopping();
    const auto initial = focusedPIDInTree(payload);
    if (!sendMessage(fd, subscribe, R"(["window"])") || !readMessage(fd, worker_.wakeFD(), type, payload) ||
        type != subscribe)
        return worker_.stopping();
    {
        std::lock_guard guard(mutex_);
        connected_ = true;
    }
    publish(initial);
    while (readMessage(fd, worker_.wakeFD(), type, payload)) {
        if (type != windowEvent)
            continue;
        const auto event = nlohmann::json::parse(payload, nullptr, false);
        if (event.is_discarded() || !event.is_object())
            continue; // a damaged event is skipped, not a reason to drop the connection
        const auto change = event.find("change");
        if (change == event.end() || !change->is_string() || change->get<std::string>() != "focus")
            continue;
        auto container = event.find("container");
        publish(container != event.end() && container->is_object() ? pidOf(*container) : std::nullopt);
    }
    return worker_.stopping();
}

} // namespace tonavi
