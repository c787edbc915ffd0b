#pragma once
// A request from a client: a sum type, one case per request. On the wire it is an object with exactly one
// key, the case's name, whose value is an object with the case's fields ("_0" for a single unlabelled
// field, {} for none). More cases join this variant as their handlers are built.

#include "base/Encoding.hpp"

#include <string>
#include <string_view>
#include <variant>

namespace tonavi {

struct TonaviRequest {
    struct Ping {
        bool operator==(const Ping&) const = default;
    };

    using Value = std::variant<Ping>;
    Value value;

    std::string_view caseName() const;
    bool operator==(const TonaviRequest&) const = default;

    static TonaviRequest ping() { return {Ping{}}; }
};

// Compact JSON text.
std::string encodeRequest(const TonaviRequest& request);
// Throws WireDecodingError; the message of a wrong key count is "Invalid number of keys found, expected one."
TonaviRequest decodeRequest(std::string_view json);
TonaviRequest decodeRequest(std::span<const std::uint8_t> json);

}  // namespace tonavi
