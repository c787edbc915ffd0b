#pragma once
// What the backend knows of the PipeWire graph: the globals it cares about with their latest
// properties and params, and the metadata it reads. Kept current by PipeWireConnection from
// registry, info, param and metadata events, so that every property read is served from memory.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/AudioHardwareTypes.hpp"

namespace tonavi {

struct PipeWireGraph {
    using Properties = std::map<std::string, std::string>;

    struct Node {
        std::uint32_t globalID = 0;
        AudioObjectID objectID = kAudioObjectUnknown;
        Properties props;
        bool running = false;
        bool failed = false;
        std::vector<float> channelVolumes; // linear, as the node reports them
        std::optional<bool> mute;
        // Derived on every change, so that status reads do no string work: media.class, and the
        // pid of the owning client (else application.process.id), 0 when unknown.
        std::string mediaClassValue;
        pid_t pid = 0;
        const std::string& mediaClass() const { return mediaClassValue; }
        // audio.channels, else the channel volumes' count, else audio.position's names, else 2.
        std::uint32_t channelCount() const;
        std::string prop(const std::string& key) const;
    };
    struct Client {
        std::uint32_t globalID = 0;
        Properties props;
        // application.process.id, 0 when the client does not say.
        pid_t pid() const;
    };
    struct Link {
        std::uint32_t outputNode = 0;
        std::uint32_t inputNode = 0;
    };

    bool connected = false;
    std::map<std::uint32_t, Node> nodes;
    std::map<std::uint32_t, Client> clients;
    std::map<std::uint32_t, Properties> devices; // device globals, for bus and api
    std::map<std::uint32_t, Link> links;
    // The "default" metadata on subject 0 (default.audio.sink, ...) and per node (target.object).
    Properties defaults;
    std::map<std::uint32_t, Properties> nodeMetadata;
    // The "settings" metadata (clock.rate, clock.quantum, ...).
    Properties settings;
    // One process object per pid that has a client, with an ID of ours.
    std::map<pid_t, AudioObjectID> processIDs;

    const Node* nodeByObject(AudioObjectID id) const;
    const Node* nodeByName(const std::string& name) const;
    std::optional<pid_t> pidOfProcessObject(AudioObjectID id) const;
    // The client owning a node (client.id), nullptr when unknown.
    const Client* clientOfNode(const Node& node) const;
    // The node.name inside a default entry's JSON value ({"name":"speakers"}).
    std::string defaultNodeName(const std::string& key) const;
    // The node's "target.object" metadata entry (a sink's object.serial), empty when it has none.
    std::string targetOf(std::uint32_t node) const;
    std::uint32_t setting(const std::string& key, std::uint32_t fallback) const;
    // The Core Audio transport word of a device node, from device.api and device.bus (of the node,
    // else of its device), its factory and its name.
    std::uint32_t transportOf(const Node& node) const;

    // The desktop entry (file name without ".desktop") whose Exec runs `binary`, searched once per
    // binary in $XDG_DATA_HOME and $XDG_DATA_DIRS "applications" folders and remembered; empty when none.
    // The bundle identifier of a process: application.id, else the Flatpak app id, else the desktop
    // entry that runs its binary, else the binary's name. Empty when no client has that pid. A
    // process whose output streams are all desktop event sounds answers `alertBundleID` instead.
    std::string bundleIdentifierOf(pid_t pid) const;

    // The identifier under which the service's trail takes a sound as the system's alert: the
    // player of alert sounds on a Mac. On Linux the players of event sounds (libcanberra's
    // canberra-gtk-play, a shell's sound theme) take that part.
    static constexpr std::string_view alertBundleID = "systemsoundserverd";
    // Whether a stream is a desktop event sound: media.role "Event", or "Notification", which is
    // what pipewire-pulse makes of PulseAudio's "event" role that libcanberra sets (any case).
    static bool isEventSound(const Node& stream);
    // The process has output streams, and every one of them is an event sound.
    bool playsOnlyEventSounds(pid_t pid) const;
    std::string applicationNameOf(pid_t pid) const;

    static std::string desktopEntryOf(const std::string& binary);
};

} // namespace tonavi
