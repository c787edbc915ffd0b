#pragma once
// A headphone correction: a preamp and a list of parametric filters applied in order.

#include "audio/headphone/ParametricFilter.hpp"

#include <string>
#include <vector>

namespace kavore {

struct HeadphoneProfile {
    std::string id;
    std::string name;
    double preampDB = 0.0;
    std::vector<ParametricFilter> filters;

    bool operator==(const HeadphoneProfile&) const = default;
};

} // namespace kavore
