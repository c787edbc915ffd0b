#pragma once
// The only reply type. `message` is always on the wire, also when empty; optional fields are left out
// when absent and never written as null. `status` is the state after the request.

#include "base/Encoding.hpp"
#include "core/wire/TonaviStatus.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tonavi {

struct TonaviReply {
    bool ok = false;
    std::string message;
    std::optional<TonaviStatus> status;
    std::optional<Bytes> payload; // JSON text of a request's result; base64 on the wire

    static TonaviReply success(std::string message = {}) {
        return {true, std::move(message), std::nullopt, std::nullopt};
    }
    static TonaviReply failure(std::string message) {
        return {false, std::move(message), std::nullopt, std::nullopt};
    }
    bool operator==(const TonaviReply&) const = default;
};

// Compact JSON text. Throws WireEncodingError when a value cannot be encoded (a number that is not
// finite anywhere in the status or the payload's record); null never reaches the wire.
std::string encodeReply(const TonaviReply& reply);
// What the control server writes: the reply, or, when it cannot be encoded, a failure reply that
// says why and carries neither status nor payload.
std::string encodeReplyOrFailure(const TonaviReply& reply);
// Throws WireDecodingError.
TonaviReply decodeReply(std::string_view json);

} // namespace tonavi
