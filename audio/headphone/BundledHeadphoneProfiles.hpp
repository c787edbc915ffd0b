#pragma once
// Corrections shipped with the product for common headphones.

#include "audio/headphone/HeadphoneProfile.hpp"

#include <vector>

namespace kavore::BundledHeadphoneProfiles {

const std::vector<HeadphoneProfile>& all();

} // namespace kavore::BundledHeadphoneProfiles
