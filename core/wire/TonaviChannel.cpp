#include "core/wire/TonaviChannel.hpp"

#include "base/Paths.hpp"
#include "core/wire/RawSocket.hpp"

namespace tonavi::TonaviChannel {

std::string socketPath() { return Paths::controlSocketPath(); }

TonaviReply send(const std::string& path, const TonaviRequest& request, double timeout) {
    std::string body = encodeRequest(request);
    Bytes reply = RawSocket::roundTrip(
        path, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()),
        timeout);
    return decodeReply(std::string_view(reinterpret_cast<const char*>(reply.data()), reply.size()));
}

TonaviReply send(const TonaviRequest& request, double timeout) { return send(socketPath(), request, timeout); }

}  // namespace tonavi::TonaviChannel
