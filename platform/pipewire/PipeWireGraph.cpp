#include "platform/pipewire/PipeWireGraph.hpp"

#include "platform/DesktopEntryCache.hpp"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include <nlohmann/json.hpp>

namespace tonavi {

std::string PipeWireGraph::Node::prop(const std::string& key) const {
    auto it = props.find(key);
    return it == props.end() ? std::string() : it->second;
}

std::uint32_t PipeWireGraph::Node::channelCount() const {
    if (auto c = std::atoi(prop("audio.channels").c_str()); c > 0)
        return static_cast<std::uint32_t>(c);
    if (!channelVolumes.empty())
        return static_cast<std::uint32_t>(channelVolumes.size());
    const std::string position = prop("audio.position");
    if (!position.empty()) {
        // "[ FL FR ]" or "FL,FR": count the names.
        std::uint32_t count = 0;
        bool inName = false;
        for (char c : position) {
            const bool letter = std::isalnum(static_cast<unsigned char>(c)) != 0;
            count += letter && !inName ? 1 : 0;
            inName = letter;
        }
        if (count > 0)
            return count;
    }
    return 2;
}

std::uint32_t PipeWireGraph::transportOf(const Node& n) const {
    PipeWireGraph::Properties device;
    if (auto it =
            devices.find(static_cast<std::uint32_t>(std::strtoul(n.prop("device.id").c_str(), nullptr, 10)));
        it != devices.end())
        device = it->second;
    auto get = [&](const char* key) {
        std::string v = n.prop(key);
        if (v.empty() && device.count(key))
            v = device[key];
        return v;
    };
    const std::string api = get("device.api");
    const std::string bus = get("device.bus");
    const std::string factory = n.prop("factory.name");
    const std::string name = n.prop("node.name");
    if (api == "bluez5" || bus == "bluetooth")
        return kAudioDeviceTransportTypeBluetooth;
    if (name.rfind("raop_", 0) == 0 || factory.find("raop") != std::string::npos || api == "raop")
        return kAudioDeviceTransportTypeAirPlay;
    if (name.rfind("combine", 0) == 0 || factory.find("combine") != std::string::npos ||
        n.prop("tonavi.group") == "true")
        return kAudioDeviceTransportTypeAggregate;
    if (bus == "usb")
        return kAudioDeviceTransportTypeUSB;
    if (bus == "pci" || (api == "alsa" && bus.empty()))
        return kAudioDeviceTransportTypeBuiltIn;
    if (factory == "support.null-audio-sink" || n.prop("node.virtual") == "true")
        return kAudioDeviceTransportTypeVirtual;
    return kAudioDeviceTransportTypeUnknown;
}

pid_t PipeWireGraph::Client::pid() const {
    auto it = props.find("application.process.id");
    return it == props.end() ? 0 : static_cast<pid_t>(std::atoi(it->second.c_str()));
}

const PipeWireGraph::Node* PipeWireGraph::nodeByObject(AudioObjectID id) const {
    if (id == kAudioObjectUnknown)
        return nullptr;
    for (const auto& [global, node] : nodes)
        if (node.objectID == id)
            return &node;
    return nullptr;
}

const PipeWireGraph::Node* PipeWireGraph::nodeByName(const std::string& name) const {
    if (name.empty())
        return nullptr;
    for (const auto& [global, node] : nodes)
        if (node.prop("node.name") == name)
            return &node;
    return nullptr;
}

std::optional<pid_t> PipeWireGraph::pidOfProcessObject(AudioObjectID id) const {
    for (const auto& [pid, object] : processIDs)
        if (object == id)
            return pid;
    return std::nullopt;
}

const PipeWireGraph::Client* PipeWireGraph::clientOfNode(const Node& node) const {
    const std::string id = node.prop("client.id");
    if (id.empty())
        return nullptr;
    auto it = clients.find(static_cast<std::uint32_t>(std::strtoul(id.c_str(), nullptr, 10)));
    return it == clients.end() ? nullptr : &it->second;
}

std::string PipeWireGraph::targetOf(std::uint32_t node) const {
    auto meta = nodeMetadata.find(node);
    if (meta == nodeMetadata.end())
        return {};
    auto target = meta->second.find("target.object");
    return target == meta->second.end() ? std::string() : target->second;
}

std::string PipeWireGraph::defaultNodeName(const std::string& key) const {
    auto it = defaults.find(key);
    if (it == defaults.end())
        return {};
    // The session manager writes {"name": "<node.name>"}; anything else names no node.
    const auto value = nlohmann::json::parse(it->second, nullptr, false);
    if (value.is_object() && value.contains("name") && value["name"].is_string())
        return value["name"].get<std::string>();
    return {};
}

std::uint32_t PipeWireGraph::setting(const std::string& key, std::uint32_t fallback) const {
    auto it = settings.find(key);
    if (it == settings.end() || it->second.empty())
        return fallback;
    return static_cast<std::uint32_t>(std::strtoul(it->second.c_str(), nullptr, 10));
}

namespace {
const PipeWireGraph::Client* mainClientOf(const PipeWireGraph& g, pid_t pid) {
    // A process may hold several clients; the one that names the application wins.
    const PipeWireGraph::Client* best = nullptr;
    for (const auto& [id, c] : g.clients)
        if (c.pid() == pid &&
            (!best || c.props.count("application.id") || c.props.count("pipewire.access.portal.app_id")))
            best = &c;
    return best;
}
std::string lookup(const PipeWireGraph::Properties& p, const char* key) {
    auto it = p.find(key);
    return it == p.end() ? std::string() : it->second;
}
} // namespace

bool PipeWireGraph::isEventSound(const Node& stream) {
    std::string role = stream.prop("media.role");
    for (auto& c : role)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return role == "event" || role == "notification";
}

bool PipeWireGraph::playsOnlyEventSounds(pid_t pid) const {
    bool any = false;
    for (const auto& [id, n] : nodes) {
        if (n.pid != pid || n.mediaClass() != "Stream/Output/Audio")
            continue;
        if (!isEventSound(n))
            return false;
        any = true;
    }
    return any;
}

std::string PipeWireGraph::bundleIdentifierOf(pid_t pid) const {
    const Client* client = mainClientOf(*this, pid);
    if (!client)
        return {};
    // A process that plays nothing but event sounds is the desktop's alert player for the trail; an
    // application that plays music too keeps its own name, and its event sounds count as its own.
    if (playsOnlyEventSounds(pid))
        return std::string(alertBundleID);
    std::string id = lookup(client->props, "application.id");
    if (id.empty())
        id = lookup(client->props, "pipewire.access.portal.app_id");
    const std::string binary = lookup(client->props, "application.process.binary");
    if (id.empty())
        id = desktopEntryOf(binary);
    return id.empty() ? binary : id;
}

std::string PipeWireGraph::applicationNameOf(pid_t pid) const {
    const Client* client = mainClientOf(*this, pid);
    return client ? lookup(client->props, "application.name") : std::string();
}

std::string PipeWireGraph::desktopEntryOf(const std::string& binary) {
    // The same reader as the application directory, so a process and its installed entry share an ID.
    return DesktopEntryCache::shared().idForProgram(binary);
}

} // namespace tonavi
