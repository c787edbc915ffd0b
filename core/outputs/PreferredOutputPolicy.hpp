#pragma once
// Which output the user's preferred order asks for among those available.

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tonavi::PreferredOutputPolicy {

// nil while the output chosen in this session is still there: the user's choice stands over the order.
std::optional<std::string> pick(const std::optional<std::string>& sessionUID,
                                const std::set<std::string>& availableUIDs,
                                const std::vector<std::string>& preferredUIDs);

} // namespace tonavi::PreferredOutputPolicy
