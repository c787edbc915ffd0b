#include "core/wire/AudioOnset.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

namespace {
constexpr std::pair<AudioOnset::Kind, std::string_view> kindNames[] = {
    {AudioOnset::Kind::app, "app"}, {AudioOnset::Kind::alert, "alert"}, {AudioOnset::Kind::output, "output"}};
} // namespace

std::string_view onsetKindName(AudioOnset::Kind kind) {
    for (const auto& [value, name] : kindNames)
        if (value == kind)
            return name;
    return "app";
}

std::optional<AudioOnset::Kind> onsetKindFromName(std::string_view name) {
    for (const auto& [value, text] : kindNames)
        if (text == name)
            return value;
    return std::nullopt;
}

TONAVI_WIRE_RECORD(AudioOnset, f("id", r.id); f("startedAt", r.startedAt); f("kind", r.kind);
                   f("frontmostAppID", r.frontmostAppID); f("label", r.label);)

} // namespace tonavi
