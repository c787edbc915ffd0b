#pragma once
// The state of one simulated machine: devices, process objects, system defaults, running
// applications, windows, taps and aggregates, injected faults and published meters. A plain value:
// SimMachine owns one, reads properties from it, and shares it between processes as a JSON file.
// The edit operations answer an error text for a human, empty on success; on error nothing changed.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/RunningApplication.hpp"
#include "platform/TapDescription.hpp"
#include "platform/sim/SimDevice.hpp"
#include "platform/sim/SimProcess.hpp"

namespace tonavi {

// Operations whose next calls can be made to fail.
enum class SimOperation {
    getProperty,
    getPropertySize,
    setProperty,
    isSettable,
    addListener,
    removeListener,
    createTap,
    destroyTap,
    createAggregate,
    destroyAggregate,
    createIOProc,
    destroyIOProc,
    deviceStart,
    deviceStop,
};
const char* simOperationName(SimOperation operation);
std::optional<SimOperation> simOperationFromName(const std::string& name);

enum class SimDefaultRole { output, input, systemOutput };

struct SimWorld {
    struct Application {
        std::string bundleID;
        std::string name;
        pid_t pid = 0;
        ActivationPolicy policy = ActivationPolicy::regular;
    };
    // An application installed on the machine, as its desktop entry would describe it.
    struct InstalledApplication {
        std::string bundleID;
        std::string name;
        std::string path;
        std::vector<std::string> categories;
    };
    struct Window {
        pid_t ownerPID = 0;
        int layer = 0;
    };
    struct Tap {
        AudioObjectID id = 0;
        TapDescription description;
        pid_t ownerPID = 0;
    };
    struct Fault {
        SimOperation operation = SimOperation::getProperty;
        std::uint32_t selector = 0; // 0: any property
        int remaining = 1;
        // For writes, noErr drops the write while reporting success.
        OSStatus status = kAudioHardwareUnspecifiedError;
    };
    // What an IO proc wrote to its outputs over the last metering window.
    struct Meter {
        std::string aggregateUID;
        std::string deviceUID; // the device that plays it
        pid_t ownerPID = 0;
        double peakDB = -120.0;
        double rmsDB = -120.0;
        double frequency = 0.0;
        std::uint64_t cycles = 0;
    };

    std::uint64_t generation = 0;
    AudioObjectID nextObjectID = 100;
    std::vector<SimDevice> devices;
    std::vector<SimDevice> detached; // unplugged, remembered so that they can come back
    std::vector<SimProcess> processes;
    std::vector<Application> applications;
    std::vector<InstalledApplication> installed;
    std::vector<Tap> taps;
    std::string defaultOutputUID;
    std::string defaultInputUID;
    std::string systemOutputUID;
    // A default-output switch accepted but not yet shown (see SimDevice::settleReads).
    struct PendingDefault {
        std::string uid;
        std::uint32_t readsLeft = 0;
    };
    std::optional<PendingDefault> pendingDefaultOutput;
    pid_t frontmostPID = 0;
    std::vector<Window> windows; // front to back
    bool windowListAvailable = true;
    bool asleep = false;
    std::vector<Fault> faults;
    std::uint32_t readDelayMilliseconds = 0;
    std::uint32_t readDelaySelector = 0; // 0: every read
    // Devices whose IO stops delivering cycles (an aggregate stalls with its main device).
    std::vector<std::string> stalledIODeviceUIDs;
    std::vector<Meter> meters;
    // Asked-for recordings of what IO procs play on a device, served by whichever process runs them.
    struct Recording {
        std::string deviceUID;
        std::string path;
        double seconds = 0;
    };
    std::vector<Recording> recordings;

    // MIDI sources by name, and the newest messages they sent (at most `midiMessagesKept`), each
    // numbered so that every process delivers each message once.
    struct MIDIMessage {
        std::uint64_t sequence = 0;
        std::string source;
        std::vector<std::uint32_t> words; // UMP words
        std::uint64_t sentAtNanos = 0;    // host time of the sender
    };
    static constexpr std::size_t midiMessagesKept = 256;
    std::vector<std::string> midiSources;
    std::uint64_t midiSequence = 0;
    std::vector<MIDIMessage> midiMessages;

    // A laptop with speakers and microphone, USB headphones, Bluetooth earbuds with a microphone and
    // an AirPlay speaker; Safari with a helper, Music, Zoom capturing, and a silent background agent.
    static SimWorld preset();

    SimDevice* device(AudioObjectID id);
    const SimDevice* device(AudioObjectID id) const;
    SimDevice* deviceByUID(const std::string& uid);
    const SimDevice* deviceByUID(const std::string& uid) const;
    SimProcess* process(AudioObjectID id);
    const SimProcess* process(AudioObjectID id) const;
    const Application* application(const std::string& bundleID) const;
    const Application* applicationByPID(pid_t pid) const;
    const Tap* tap(AudioObjectID id) const;
    const Tap* tapByUUID(const std::string& uuid) const;
    AudioObjectID allocateID() { return nextObjectID++; }

    std::string defaultUID(SimDefaultRole role) const;
    // The device a process plays on (input false) or records from (input true); "" when none.
    std::string effectiveDeviceUID(const SimProcess& process, bool input) const;
    // Whether a live tap silences `process` on `deviceUID`.
    bool isMutedByTap(const SimProcess& process, const std::string& deviceUID) const;

    // Edits, used by tests and the command-line driver.
    std::string plug(SimDevice device);         // a new device, or a detached one back by UID
    std::string replug(const std::string& uid); // a detached device comes back with a new object ID
    std::string unplug(const std::string& uid);
    std::string rename(const std::string& uid, const std::string& name);
    std::string setDefault(SimDefaultRole role, const std::string& uid);
    // One read of the default output passes: a pending switch counts down and lands when due, or is
    // dropped when its device has gone. True if the world changed.
    bool settlePendingDefaultOutput();
    std::string setVolume(const std::string& uid, float volume);
    // `who` is a bundle ID or a pid; the first matching process object.
    std::string setPlaying(const std::string& who, bool playing, std::optional<SimProcess::Signal> signal);
    std::string setCapturing(const std::string& who, bool capturing);
    std::string routeProcess(const std::string& who, const std::string& deviceUID);
    std::string launch(const Application& app, bool withProcessObject);
    std::string quit(const std::string& bundleID);
    // Installs an application, or replaces the one with the same bundle ID.
    std::string install(InstalledApplication app);
    // A MIDI source comes or goes; plugging one that is there is no change.
    std::string plugMIDISource(const std::string& name);
    std::string unplugMIDISource(const std::string& name);
    // One message from a source that is there.
    std::string sendMIDI(const std::string& source, std::vector<std::uint32_t> words, std::uint64_t sentAtNanos);
    std::string activate(const std::string& bundleID);
    std::string failNext(SimOperation operation, int count, OSStatus status, std::uint32_t selector);
    void setReadDelay(std::uint32_t milliseconds, std::uint32_t selector);
    std::string stallIO(const std::string& uid, bool stalled);
    std::string requestRecording(const std::string& deviceUID, const std::string& path, double seconds);
    // Whether IO on `device` delivers cycles: not when it or its main sub-device is stalled or gone.
    bool deliversIO(const SimDevice& device) const;
    // Removes taps, private aggregates and meters whose owning process is gone; true if any was removed.
    bool removeOrphans(const std::function<bool(pid_t)>& isAlive);

    SimProcess* findProcess(const std::string& who);
};

// Disk form: pretty printed JSON with sorted keys. Reading fails with a message on any bad value.
nlohmann::json simWorldToJSON(const SimWorld& world);
std::optional<SimWorld> simWorldFromJSON(const nlohmann::json& json, std::string& error);

} // namespace tonavi
