#pragma once
// The frame used in both directions of the control socket: four bytes of big-endian length, then
// that many bytes of UTF-8 JSON. Only a reader enforces the size limit.

#include "base/Encoding.hpp"
#include "core/wire/TransportError.hpp"

#include <cstdint>

namespace tonavi::ControlTransport {

constexpr std::uint32_t maxFrameLength = 0xFFFFFF;

// Throws TransportError::io with strerror's text when a send fails.
void writeFrame(int fd, std::span<const std::uint8_t> data);
void writeFrame(int fd, std::string_view data);
// Throws TransportError::io: "frame too large", "connection closed" or strerror's text.
Bytes readFrame(int fd);

}  // namespace tonavi::ControlTransport
