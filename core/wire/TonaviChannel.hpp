#pragma once
// The client helper: one request, one reply, over the service's control socket.

#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"

#include <string>

namespace tonavi::TonaviChannel {

// control.sock in the support folder; service and clients compute it alike.
std::string socketPath();

// Throws TransportError, or WireDecodingError for a reply that does not decode. The time-out applies to
// sending and to receiving separately.
TonaviReply send(const TonaviRequest& request, double timeout);
TonaviReply send(const std::string& path, const TonaviRequest& request, double timeout);

}  // namespace tonavi::TonaviChannel
