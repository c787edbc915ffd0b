#include "core/outputs/AutomaticOutputPolicy.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace tonavi::AutomaticOutputPolicy {

namespace {

using Transport = DeviceLiveStatus::Transport;

constexpr std::array<std::string_view, 7> personalWords{"airpod",  "headphone", "earphone", "earbud",
                                                        "headset", "bose",      "jbl"};
constexpr std::array<std::string_view, 8> roomWords{"tv",      "television", "display",    "hdmi",
                                                    "monitor", "projector",  "chromecast", "airplay"};
constexpr std::array<std::string_view, 5> protectedWords{"headphone", "headset", "airpod", "earphone",
                                                         "earbud"};

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

template <std::size_t N>
bool containsAny(std::string_view name, const std::array<std::string_view, N>& words) {
    const std::string lower = lowered(name);
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view w) { return lower.find(w) != std::string::npos; });
}

bool isEligible(const AutomaticOutputCandidate& c, const std::set<std::string>& appeared) {
    return appeared.count(c.uid) && c.isOutput && !c.hidden && c.transport != Transport::virtual_ &&
           c.transport != Transport::aggregate;
}

std::optional<std::string> firstPreferred(const std::vector<std::string>& preferred,
                                          const std::vector<AutomaticOutputCandidate>& pool) {
    for (const auto& uid : preferred)
        if (std::any_of(pool.begin(), pool.end(), [&](const auto& c) { return c.uid == uid; }))
            return uid;
    return std::nullopt;
}

std::string lowestUID(const std::vector<AutomaticOutputCandidate>& pool) {
    return std::min_element(pool.begin(), pool.end(),
                            [](const auto& a, const auto& b) { return a.uid < b.uid; })
        ->uid;
}

} // namespace

bool isPersonalAudio(std::string_view name, Transport transport) {
    return transport == Transport::bluetooth || containsAny(name, personalWords);
}

bool isRoomAudio(std::string_view name, Transport transport) {
    if (transport == Transport::airplay)
        return true;
    // Tokens, so that "tv" does not hit inside another word.
    const std::string lower = lowered(name);
    std::string token;
    auto matches = [&] {
        return !token.empty() && std::find(roomWords.begin(), roomWords.end(), token) != roomWords.end();
    };
    for (char c : lower) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            token += c;
            continue;
        }
        if (matches())
            return true;
        token.clear();
    }
    return matches();
}

bool isProtectedName(std::string_view name) {
    return containsAny(name, protectedWords);
}

std::optional<std::string> pick(const std::set<std::string>& appearedUIDs,
                                const std::optional<AutomaticOutputCandidate>& current,
                                const std::vector<AutomaticOutputCandidate>& candidates,
                                const std::vector<std::string>& preferredUIDs) {
    std::vector<AutomaticOutputCandidate> eligible;
    for (const auto& c : candidates)
        if (isEligible(c, appearedUIDs))
            eligible.push_back(c);
    if (eligible.empty())
        return std::nullopt;
    if (current && isPersonalAudio(current->name, current->transport))
        return std::nullopt;

    std::vector<AutomaticOutputCandidate> personal;
    for (const auto& c : eligible)
        if (isPersonalAudio(c.name, c.transport))
            personal.push_back(c);
    if (!personal.empty()) {
        if (auto preferred = firstPreferred(preferredUIDs, personal))
            return preferred;
        return lowestUID(personal);
    }
    // A preferred non-personal device that comes back is taken even from a non-built-in output.
    if (auto preferred = firstPreferred(preferredUIDs, eligible))
        return preferred;
    // Otherwise a new speaker only takes over from the built-in speakers, or from nothing. (A
    // built-in headphone port is personal and was kept above.)
    if (current && current->transport != Transport::builtin)
        return std::nullopt;
    return lowestUID(eligible);
}

} // namespace tonavi::AutomaticOutputPolicy
