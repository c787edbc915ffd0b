#pragma once
// Compares builds of this system: the numeric components of a version string, then the build.

#include <compare>
#include <cstdint>
#include <string_view>
#include <vector>

namespace tonavi {

struct InstallationVersion {
    std::vector<std::int64_t> components;
    std::int64_t build = 0;

    InstallationVersion() = default;
    InstallationVersion(std::vector<std::int64_t> components, std::int64_t build)
        : components(std::move(components)), build(build) {}
    // "1.2.x.3" gives 1, 2, 3: pieces that are not base-10 integers are dropped. A build that is not
    // an integer counts as 0.
    InstallationVersion(std::string_view version, std::string_view buildString);

    // Components lexicographically (a prefix first); equal components order by build.
    std::strong_ordering operator<=>(const InstallationVersion& other) const;
    bool operator==(const InstallationVersion& other) const = default;

    // True when `other` is an older build: a strictly lower build, and, if the components differ,
    // components that come before these.
    bool canReplace(const InstallationVersion& other) const;
};

} // namespace tonavi
