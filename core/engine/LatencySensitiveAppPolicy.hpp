#pragma once
// Music production tools, for which any added latency is unacceptable. They keep the direct path
// unless the user asks for control, and get global listening only on request.

#include <string_view>

namespace tonavi::LatencySensitiveAppPolicy {

// True if the lowercased bundle ID contains one of the known production-tool markers.
// Allocation-free: the render path asks this every cycle.
bool prefersDirectSoftMaster(std::string_view bundleID);

} // namespace tonavi::LatencySensitiveAppPolicy
