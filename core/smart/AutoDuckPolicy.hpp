#pragma once
// Which apps Auto-duck eases down while a microphone is live.

#include "core/smart/BundleIDSet.hpp"

namespace tonavi::AutoDuckPolicy {

// The default depth, in decibels.
inline constexpr double duckDB = -12.0;

// Empty while nothing captures. Otherwise every audible app that neither captures (an app in a call
// is not ducked, even while it plays) nor is left alone.
BundleIDSet ducked(const BundleIDSet& audible, const BundleIDSet& capturing,
                   const BundleIDPredicate& leaveAlone);

} // namespace tonavi::AutoDuckPolicy
