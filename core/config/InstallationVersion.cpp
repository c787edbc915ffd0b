#include "core/config/InstallationVersion.hpp"

#include <algorithm>
#include <charconv>
#include <optional>

namespace tonavi {

namespace {

std::optional<std::int64_t> parseInteger(std::string_view text) {
    // An optional sign, then digits only, as a strict integer parse accepts.
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    if (text.empty())
        return std::nullopt;
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

} // namespace

InstallationVersion::InstallationVersion(std::string_view version, std::string_view buildString) {
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = version.find('.', start);
        const std::string_view piece =
            version.substr(start, dot == std::string_view::npos ? dot : dot - start);
        if (auto value = parseInteger(piece))
            components.push_back(*value);
        if (dot == std::string_view::npos)
            break;
        start = dot + 1;
    }
    build = parseInteger(buildString).value_or(0);
}

std::strong_ordering InstallationVersion::operator<=>(const InstallationVersion& other) const {
    if (components == other.components)
        return build <=> other.build;
    return std::lexicographical_compare_three_way(components.begin(), components.end(),
                                                  other.components.begin(), other.components.end());
}

bool InstallationVersion::canReplace(const InstallationVersion& other) const {
    if (!(other.build < build))
        return false;
    if (components == other.components)
        return true;
    return std::lexicographical_compare(other.components.begin(), other.components.end(), components.begin(),
                                        components.end());
}

} // namespace tonavi
