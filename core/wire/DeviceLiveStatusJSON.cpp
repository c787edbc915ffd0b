#include "core/wire/DeviceLiveStatus.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

namespace {
constexpr std::pair<DeviceLiveStatus::Transport, std::string_view> transportNames[] = {
    {DeviceLiveStatus::Transport::builtin, "builtin"},     {DeviceLiveStatus::Transport::usb, "usb"},
    {DeviceLiveStatus::Transport::bluetooth, "bluetooth"}, {DeviceLiveStatus::Transport::airplay, "airplay"},
    {DeviceLiveStatus::Transport::aggregate, "aggregate"}, {DeviceLiveStatus::Transport::virtual_, "virtual"},
    {DeviceLiveStatus::Transport::other, "other"},
};
} // namespace

std::string_view transportName(DeviceLiveStatus::Transport transport) {
    for (const auto& [value, name] : transportNames)
        if (value == transport)
            return name;
    return "other";
}

std::optional<DeviceLiveStatus::Transport> transportFromName(std::string_view name) {
    for (const auto& [value, text] : transportNames)
        if (text == name)
            return value;
    return std::nullopt;
}

TONAVI_WIRE_RECORD(DeviceLiveStatus, f("id", r.id); f("name", r.name); f("nickname", r.nickname);
                   f("transport", r.transport); f("isInput", r.isInput); f("isOutput", r.isOutput);
                   f("isDefaultOutput", r.isDefaultOutput); f("isDefaultInput", r.isDefaultInput);
                   f("volume", r.volume); f("muted", r.muted); f("sampleRate", r.sampleRate);
                   f("channels", r.channels); f("level", r.level); f("batteryPercent", r.batteryPercent);
                   f("codec", r.codec); f("connectionQuality", r.connectionQuality);
                   f("hasVolume", r.hasVolume); f("hidden", r.hidden); f("displayRank", r.displayRank);
                   f("useCount", r.useCount); f("lastUsedAt", r.lastUsedAt);)

} // namespace tonavi
