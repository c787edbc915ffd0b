#pragma once
// What may never be tapped: this system's own apps and other audio-routing infrastructure, on
// every platform. A tap on a routing service can feed back or silence every app.

#include <set>
#include <string>
#include <string_view>

namespace tonavi::TonaviTapSafety {

const std::set<std::string, std::less<>>& blockedBundleIDs();
bool mayCapture(std::string_view bundleID);

} // namespace tonavi::TonaviTapSafety
