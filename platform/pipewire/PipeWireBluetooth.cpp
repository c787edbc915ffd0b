// What the PipeWire graph already knows of Bluetooth devices: the bluez5 plugin puts the device's
// address and the codec in use on its nodes (or on their device). Battery and signal are BlueZ's,
// read by the service's slow source, not here.

#include "platform/pipewire/PipeWireAudioHardware.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

#include <algorithm>
#include <string>

namespace tonavi {

namespace {

// The node's own property, else its device's.
std::string bluezProperty(const PipeWireGraph& g, const PipeWireGraph::Node& n, const std::string& key) {
    if (auto value = n.prop(key); !value.empty())
        return value;
    const std::string device = n.prop("device.id");
    if (device.empty() || device.find_first_not_of("0123456789") != std::string::npos || device.size() > 9)
        return {};
    auto it = g.devices.find(static_cast<std::uint32_t>(std::stoul(device)));
    if (it == g.devices.end())
        return {};
    auto found = it->second.find(key);
    return found == it->second.end() ? std::string() : found->second;
}

} // namespace

std::vector<BluetoothRegistryEntry> PipeWireAudioHardware::bluetoothRegistry() {
    return connection_->read([](const PipeWireGraph& g) {
        std::vector<BluetoothRegistryEntry> entries;
        for (const auto& [id, n] : g.nodes) {
            const std::string& kind = n.mediaClass();
            if (!kind.starts_with("Audio/Sink") && !kind.starts_with("Audio/Source"))
                continue;
            const std::string address = bluezProperty(g, n, "api.bluez5.address");
            if (address.empty())
                continue;
            const std::string codec = bluezProperty(g, n, "api.bluez5.codec");
            auto same = std::find_if(entries.begin(), entries.end(), [&](const BluetoothRegistryEntry& e) {
                return std::get<std::string>(e.deviceAddress) == address;
            });
            if (same == entries.end()) {
                BluetoothRegistryEntry entry;
                entry.deviceAddress = address;
                same = entries.insert(entries.end(), std::move(entry));
            }
            // A headset's output node carries the music codec; keep the first codec seen.
            if (!same->activeCodec && !codec.empty())
                same->activeCodec = codec;
        }
        return entries;
    });
}

} // namespace tonavi
