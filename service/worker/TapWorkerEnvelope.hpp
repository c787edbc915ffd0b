#pragma once
// What the service writes to a tap worker's stdin: one JSON object a line.

#include "core/engine/TapWorkerState.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tonavi {

struct TapWorkerEnvelope {
    static constexpr const char* stateAction = "state";
    static constexpr const char* stopAction = "stop";

    std::string action;
    std::optional<TapWorkerState> state;

    static TapWorkerEnvelope makeState(const TapWorkerState& state) { return {stateAction, state}; }
    static TapWorkerEnvelope makeStop() { return {stopAction, std::nullopt}; }

    // The encoded object followed by one line feed.
    std::string line() const;
    // One line without its line feed. Nothing when it is not UTF-8 JSON for an envelope: an object
    // with a string `action` and, when present, a well-formed `state`.
    static std::optional<TapWorkerEnvelope> decode(std::string_view line);

    bool operator==(const TapWorkerEnvelope&) const = default;
};

} // namespace tonavi
