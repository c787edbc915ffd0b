#include "core/wire/ControlTransport.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace tonavi::ControlTransport {

namespace {
void sendAll(int fd, const std::uint8_t* bytes, size_t count) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::send(fd, bytes + done, count - done, MSG_NOSIGNAL);
        if (n <= 0) throw TransportError::io(std::strerror(errno));
        done += static_cast<size_t>(n);
    }
}

// No retry on EINTR or EAGAIN: an expired receive time-out must end the read.
void readExactly(int fd, std::uint8_t* into, size_t count) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::read(fd, into + done, count - done);
        if (n == 0) throw TransportError::io("connection closed");
        if (n < 0) throw TransportError::io(std::strerror(errno));
        done += static_cast<size_t>(n);
    }
}
}  // namespace

void writeFrame(int fd, std::span<const std::uint8_t> data) {
#ifdef SO_NOSIGPIPE
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif
    auto length = static_cast<std::uint32_t>(data.size());
    std::uint8_t header[4] = {static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
                              static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    sendAll(fd, header, sizeof header);
    if (!data.empty()) sendAll(fd, data.data(), data.size());
}

void writeFrame(int fd, std::string_view data) {
    writeFrame(fd, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()));
}

Bytes readFrame(int fd) {
    std::uint8_t header[4];
    readExactly(fd, header, sizeof header);
    std::uint32_t length = (std::uint32_t(header[0]) << 24) | (std::uint32_t(header[1]) << 16) |
                           (std::uint32_t(header[2]) << 8) | std::uint32_t(header[3]);
    if (length > maxFrameLength) throw TransportError::io("frame too large");
    Bytes payload(length);
    if (length > 0) readExactly(fd, payload.data(), length);
    return payload;
}

}  // namespace tonavi::ControlTransport
