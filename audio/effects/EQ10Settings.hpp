#pragma once
// Settings of the ten-band graphic equaliser. Every way of building the record normalises it:
// exactly ten gains, each gain and the preamp within -12...12 dB, non-finite values as 0.

#include <array>
#include <vector>

namespace kavore {

struct EQ10Settings {
    static constexpr std::size_t bandCount = 10;

    std::array<double, bandCount> bandGainsDB{};
    double preampDB = 0.0;
    bool enabled = false;

    EQ10Settings() = default;
    // Gains beyond the tenth are dropped; missing ones are 0.
    EQ10Settings(const std::vector<double>& bandGainsDB, double preampDB, bool enabled);

    // Ten zeros, preamp 0, not enabled.
    static EQ10Settings flat() { return EQ10Settings(); }

    bool isNeutral() const;

    bool operator==(const EQ10Settings&) const = default;
};

} // namespace kavore
