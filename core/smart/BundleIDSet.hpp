#pragma once
// A set of bundle identifiers (or device UIDs), ordered, with lookups by string_view. The same type
// as the engine's ID set, so the smart decisions hand their results to it without a copy of form.

#include <functional>
#include <set>
#include <string>
#include <string_view>

namespace tonavi {

using BundleIDSet = std::set<std::string, std::less<>>;
using BundleIDPredicate = std::function<bool(std::string_view)>;

} // namespace tonavi
