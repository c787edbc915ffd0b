#include "tools/load/RequestCountingProxy.hpp"

#include "core/wire/ControlTransport.hpp"
#include "core/wire/RawSocket.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace tonavi {

namespace {

constexpr double forwardTimeoutSeconds = 25;

} // namespace

RequestCountingProxy::RequestCountingProxy(std::string listenPath, std::string servicePath)
    : listenPath_(std::move(listenPath)), servicePath_(std::move(servicePath)) {
    std::filesystem::create_directories(std::filesystem::path(listenPath_).parent_path());
    ::unlink(listenPath_.c_str());
    sockaddr_un address{};
    if (!RawSocket::makeAddress(listenPath_, address))
        throw std::runtime_error("proxy socket path too long: " + listenPath_);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0) {
        if (listener_ >= 0)
            ::close(listener_);
        throw std::runtime_error("cannot listen on " + listenPath_);
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

RequestCountingProxy::~RequestCountingProxy() {
    // Closing alone does not wake a thread blocked in accept on Linux.
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    ::close(listener_);
    ::unlink(listenPath_.c_str());
}

void RequestCountingProxy::acceptLoop() {
    while (true) {
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        serve(connection);
        ::close(connection);
    }
}

void RequestCountingProxy::serve(int connection) {
    try {
        const Bytes request = ControlTransport::readFrame(connection);
        const auto parsed = nlohmann::json::parse(request.begin(), request.end(), nullptr, false);
        const std::string name =
            parsed.is_object() && parsed.size() == 1 ? parsed.begin().key() : std::string("(not a request)");
        {
            std::lock_guard guard(countsLock_);
            ++counts_[name];
        }
        const Bytes reply = RawSocket::roundTrip(servicePath_, request, forwardTimeoutSeconds);
        ControlTransport::writeFrame(connection, reply);
    } catch (const std::exception&) {
        // The client sees its connection closed, as it would for a service that went away.
    }
}

std::map<std::string, std::size_t> RequestCountingProxy::counts() const {
    std::lock_guard guard(countsLock_);
    return counts_;
}

std::size_t RequestCountingProxy::count(const std::string& requestCase) const {
    std::lock_guard guard(countsLock_);
    const auto it = counts_.find(requestCase);
    return it == counts_.end() ? 0 : it->second;
}

} // namespace tonavi
