#include "core/outputs/AudioEndpointResolver.hpp"

#include <algorithm>
#include <cctype>

namespace tonavi::AudioEndpointResolver {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return lowered(a) == lowered(b);
}

bool containsIgnoringCase(std::string_view haystack, std::string_view needle) {
    return lowered(haystack).find(lowered(needle)) != std::string::npos;
}

} // namespace

std::optional<std::string> resolve(std::string_view text, const std::vector<DeviceLiveStatus>& devices,
                                   AudioEndpointRole role) {
    std::vector<const DeviceLiveStatus*> pool;
    for (const auto& d : devices) {
        if (role == AudioEndpointRole::any || (role == AudioEndpointRole::output && d.isOutput) ||
            (role == AudioEndpointRole::input && d.isInput))
            pool.push_back(&d);
    }
    if (pool.empty())
        return std::nullopt;
    for (const auto* d : pool)
        if (d->id == text)
            return d->id;
    for (const auto* d : pool)
        if (equalIgnoringCase(d->name, text) ||
            (!d->nickname.empty() && equalIgnoringCase(d->nickname, text)))
            return d->id;
    for (const auto* d : pool)
        if (containsIgnoringCase(d->name, text) ||
            (!d->nickname.empty() && containsIgnoringCase(d->nickname, text)))
            return d->id;
    return std::nullopt;
}

} // namespace tonavi::AudioEndpointResolver
