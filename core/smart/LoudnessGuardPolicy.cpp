#include "core/smart/LoudnessGuardPolicy.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

namespace tonavi::LoudnessGuardPolicy {

namespace {
constexpr std::array<std::string_view, 5> earWords{"headphone", "headset", "airpod", "earphone", "earbud"};
}

bool isProtectedOutput(DeviceLiveStatus::Transport transport, std::string_view name) {
    if (transport == DeviceLiveStatus::Transport::bluetooth)
        return true;
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(earWords.begin(), earWords.end(),
                       [&](std::string_view word) { return lower.find(word) != std::string::npos; });
}

} // namespace tonavi::LoudnessGuardPolicy
