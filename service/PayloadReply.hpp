#pragma once
// A list request's reply: its payload and no status. A record that cannot be encoded (a number that
// is not finite) makes a failure reply with the encoder's words rather than a closed connection.

#include "core/wire/TonaviPayload.hpp"
#include "core/wire/TonaviReply.hpp"

#include <exception>

namespace tonavi {

template <class T> TonaviReply payloadReply(const T& value) {
    try {
        TonaviReply reply = TonaviReply::success();
        reply.payload = TonaviPayload::encode(value);
        return reply;
    } catch (const std::exception& e) {
        return TonaviReply::failure(e.what());
    }
}

} // namespace tonavi
