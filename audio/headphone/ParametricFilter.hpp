#pragma once
// One filter of a headphone correction profile.

#include <optional>
#include <string_view>

namespace kavore {

struct ParametricFilter {
    enum class Kind { peaking, lowShelf, highShelf };

    Kind kind = Kind::peaking;
    double freqHz = 0.0;
    double gainDB = 0.0;
    double q = 0.707;

    // "peaking", "lowShelf", "highShelf".
    static std::string_view kindName(Kind kind);
    static std::optional<Kind> kindFromName(std::string_view name);

    bool operator==(const ParametricFilter&) const = default;
};

} // namespace kavore
