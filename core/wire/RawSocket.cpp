#include "core/wire/RawSocket.hpp"

#include "core/wire/ControlTransport.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace tonavi::RawSocket {

timeval socketTimeout(double seconds) {
    double micros = std::ceil(seconds * 1'000'000.0);
    if (!std::isfinite(micros) || micros >= 9.2e18 || micros <= -9.2e18) std::abort();
    auto total = static_cast<std::int64_t>(micros);
    if (total < 1) total = 1;
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(total / 1'000'000);
    tv.tv_usec = static_cast<suseconds_t>(total % 1'000'000);
    return tv;
}

bool makeAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() > maxPathBytes) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    address.sun_path[path.size()] = '\0';
    return true;
}

Bytes roundTrip(const std::string& path, std::span<const std::uint8_t> payload, double timeout) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw TransportError::cannotConnect("socket() failed");
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    sockaddr_un address{};
    if (!makeAddress(path, address)) throw TransportError::cannotConnect("socket path too long");
    timeval tv = socketTimeout(timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw TransportError::cannotConnect(std::string("service not running (") + std::strerror(errno) + ")");
    }
    ControlTransport::writeFrame(fd, payload);
    return ControlTransport::readFrame(fd);
}

}  // namespace tonavi::RawSocket
