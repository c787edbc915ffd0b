#pragma once
// Remembers the outputs seen last time and tells which of them changed.

#include <map>
#include <optional>
#include <set>
#include <string>

#include "core/outputs/OutputRouteSignature.hpp"

namespace tonavi {

struct OutputTopologyTracker {
    std::optional<std::map<std::string, OutputRouteSignature>> previous;

    // UIDs present on one side only or with another signature. The first call is a baseline and
    // reports nothing.
    std::set<std::string> update(const std::map<std::string, OutputRouteSignature>& current);
};

} // namespace tonavi
