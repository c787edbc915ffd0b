#pragma once
// The client's side of one request: connect, write one frame, read one frame, close.

#include "base/Encoding.hpp"

#include <sys/time.h>
#include <sys/un.h>

namespace tonavi::RawSocket {

// The longest socket path accepted in bytes, the same on every platform we build for, so that a path
// that works here works everywhere.
constexpr size_t maxPathBytes = 103;

// Seconds to a timeval for SO_RCVTIMEO/SO_SNDTIMEO: the ceiling in microseconds, at least one, because a zero
// timeval would mean no time-out at all. A value that is not finite or beyond 64 bits is a programming fault.
timeval socketTimeout(double seconds);

// Fills a zeroed local address; false when the path is above maxPathBytes.
bool makeAddress(const std::string& path, sockaddr_un& address);

// Throws TransportError.
Bytes roundTrip(const std::string& path, std::span<const std::uint8_t> payload, double timeout);

}  // namespace tonavi::RawSocket
