#pragma once
// The only reply type. `message` is always on the wire, also when empty; optional fields are left out
// when absent and never written as null. The status record joins this type when the service builds one;
// until then a reply carries none and a "status" key on input is ignored.

#include "base/Encoding.hpp"

#include <optional>
#include <string>

namespace tonavi {

struct TonaviReply {
    bool ok = false;
    std::string message;
    std::optional<Bytes> payload;  // JSON text of a request's result; base64 on the wire

    static TonaviReply success(std::string message = {}) { return {true, std::move(message), std::nullopt}; }
    static TonaviReply failure(std::string message) { return {false, std::move(message), std::nullopt}; }
    bool operator==(const TonaviReply&) const = default;
};

// Compact JSON text. Throws WireEncodingError when a value cannot be encoded.
std::string encodeReply(const TonaviReply& reply);
// Throws WireDecodingError.
TonaviReply decodeReply(std::string_view json);

}  // namespace tonavi
