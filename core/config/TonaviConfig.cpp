#include "core/config/TonaviConfig.hpp"

#include <algorithm>
#include <array>
#include <locale>
#include <map>
#include <set>
#include <utility>

namespace tonavi {

TonaviConfig TonaviConfig::firstRunDefaults(AppPlatform platform) {
    using Favourites = std::array<std::pair<const char*, const char*>, 5>;
    static constexpr Favourites macOS = {{
        {"com.anthropic.claudefordesktop", "Claude"},
        {"com.openai.chat", "ChatGPT"},
        {"com.google.Chrome", "Chrome"},
        {"com.apple.Safari", "Safari"},
        {"org.musescore.MuseScore", "MuseScore"},
    }};
    // Applications a Linux desktop has, by the identifiers its audio clients carry.
    static constexpr Favourites linuxDesktop = {{
        {"firefox", "Firefox"},
        {"chromium", "Chromium"},
        {"google-chrome", "Chrome"},
        {"com.spotify.Client", "Spotify"},
        {"org.musescore.MuseScore", "MuseScore"},
    }};
    TonaviConfig config;
    config.startAtLogin = true;
    std::int64_t rank = 0;
    for (const auto& [id, name] : platform == AppPlatform::linuxDesktop ? linuxDesktop : macOS) {
        AppAudioState state(id);
        state.displayName = name;
        state.favorite = true;
        state.favoriteRank = rank++;
        config.apps.push_back(std::move(state));
    }
    return config;
}

const AppAudioState* TonaviConfig::app(std::string_view id) const {
    const auto it =
        std::find_if(apps.begin(), apps.end(), [&](const AppAudioState& a) { return a.id == id; });
    return it == apps.end() ? nullptr : &*it;
}

AppAudioState* TonaviConfig::app(std::string_view id) {
    return const_cast<AppAudioState*>(std::as_const(*this).app(id));
}

void TonaviConfig::upsertApp(const AppAudioState& state) {
    if (AppAudioState* existing = app(state.id))
        *existing = state;
    else
        apps.push_back(state);
}

bool TonaviConfig::rememberAudibleApps(const std::vector<std::string>& ids) {
    std::set<std::string> known(historicallyAudibleAppIDs.begin(), historicallyAudibleAppIDs.end());
    // Compare sets, not arrays: an unsorted stored array with nothing new stays as it is.
    const std::size_t before = known.size();
    for (const auto& id : ids)
        if (!id.empty())
            known.insert(id);
    if (known.size() == before)
        return false;
    historicallyAudibleAppIDs.assign(known.begin(), known.end());
    return true;
}

void TonaviConfig::setAppVisible(const std::string& id, bool visible) {
    std::set<std::string> hidden(hiddenAppIDs.begin(), hiddenAppIDs.end());
    std::set<std::string> shown(manuallyVisibleAppIDs.begin(), manuallyVisibleAppIDs.end());
    if (visible) {
        hidden.erase(id);
        shown.insert(id);
    } else {
        shown.erase(id);
        hidden.insert(id);
    }
    hiddenAppIDs.assign(hidden.begin(), hidden.end());
    manuallyVisibleAppIDs.assign(shown.begin(), shown.end());
}

bool TonaviConfig::appendUnrankedMixerApps(
    const std::vector<std::pair<std::string, std::string>>& mixerApps) {
    const std::set<std::string> hidden(hiddenAppIDs.begin(), hiddenAppIDs.end());
    std::map<std::string, std::string> names;
    for (const auto& [id, name] : mixerApps) {
        if (id.empty() || hidden.count(id))
            continue;
        names[id] = name;
    }
    std::vector<std::pair<std::string, std::string>> unranked;
    for (const auto& [id, name] : names) {
        const AppAudioState* existing = app(id);
        if (!existing || !existing->displayRank)
            unranked.emplace_back(id, name);
    }
    if (unranked.empty())
        return false;
    std::sort(unranked.begin(), unranked.end(), [](const auto& a, const auto& b) {
        const int byName = localizedCaseInsensitiveCompare(a.second, b.second);
        if (byName != 0)
            return byName < 0;
        return a.first < b.first;
    });

    std::int64_t next = 0;
    bool anyRanked = false;
    for (const auto& state : apps) {
        if (!state.displayRank)
            continue;
        next = anyRanked ? std::max(next, *state.displayRank + 1) : *state.displayRank + 1;
        anyRanked = true;
    }
    for (const auto& [id, name] : unranked) {
        if (AppAudioState* existing = app(id)) {
            existing->displayRank = next;
            if (existing->displayName.empty())
                existing->displayName = name;
        } else {
            AppAudioState state(id);
            state.displayName = name;
            state.displayRank = next;
            apps.push_back(std::move(state));
        }
        ++next;
    }
    return true;
}

void TonaviConfig::adoptAppOwnedSettings(const TonaviConfig& other) {
    ui = other.ui;
    startAtLogin = other.startAtLogin;
    superVolumeKeys = other.superVolumeKeys;
}

namespace {

// UTF-8 to code points; an invalid byte stands for itself so that no input is lost to the order.
std::wstring widen(std::string_view text) {
    std::wstring out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        int length = lead < 0x80           ? 1
                     : (lead >> 5) == 0x6  ? 2
                     : (lead >> 4) == 0xE  ? 3
                     : (lead >> 3) == 0x1E ? 4
                                           : 0;
        char32_t cp = 0;
        bool ok = length > 0 && i + static_cast<std::size_t>(length) <= text.size();
        if (ok) {
            cp = length == 1 ? lead : lead & (0x7F >> length);
            for (int k = 1; k < length; ++k) {
                const auto c = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
                if ((c & 0xC0) != 0x80) {
                    ok = false;
                    break;
                }
                cp = (cp << 6) | (c & 0x3F);
            }
        }
        if (!ok) {
            cp = lead;
            length = 1;
        }
        out.push_back(static_cast<wchar_t>(cp));
        i += static_cast<std::size_t>(length);
    }
    return out;
}

const std::locale& userLocale() {
    static const std::locale locale = [] {
        try {
            return std::locale("");
        } catch (const std::exception&) {
            return std::locale::classic();
        }
    }();
    return locale;
}

} // namespace

int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b) {
    const std::locale& locale = userLocale();
    const auto& ctype = std::use_facet<std::ctype<wchar_t>>(locale);
    std::wstring wa = widen(a);
    std::wstring wb = widen(b);
    ctype.tolower(wa.data(), wa.data() + wa.size());
    ctype.tolower(wb.data(), wb.data() + wb.size());
    const auto& collate = std::use_facet<std::collate<wchar_t>>(locale);
    const int byLocale = collate.compare(wa.data(), wa.data() + wa.size(), wb.data(), wb.data() + wb.size());
    if (byLocale != 0)
        return byLocale;
    // Collation may call different texts equal; fall back to code points so the order is total.
    return wa.compare(wb) < 0 ? -1 : wa.compare(wb) > 0 ? 1 : 0;
}

} // namespace tonavi
