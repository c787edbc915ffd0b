#include "platform/PlatformBackend.hpp"

#include <cstdlib>
#include <mutex>
#include <sys/stat.h>

#include "base/Log.hpp"
#include "base/Paths.hpp"
#include "platform/pipewire/PipeWireAudioHardware.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireMIDI.hpp"
#include "platform/pipewire/PipeWireWorkspace.hpp"
#include "platform/sim/SimMIDI.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"

namespace tonavi {

namespace {
std::mutex backendMutex;
std::unique_ptr<PlatformBackend> backend;

std::unique_ptr<PlatformBackend> makeSim(std::string& error) {
    const std::string path = PlatformBackend::simWorldPath();
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        // A first run gets the preset machine, so that the service runs whole out of the box.
        SimWorldFile file(path);
        if (auto why = file.create(SimWorld::preset(), false);
            !why.empty() && ::stat(path.c_str(), &st) != 0) {
            error = why;
            return nullptr;
        }
    }
    auto machine = SimMachine::open(path, error);
    if (!machine)
        return nullptr;
    auto workspace = std::make_shared<SimWorkspace>(machine);
    auto backend = std::make_unique<PlatformBackend>("sim", machine, workspace);
    backend->setMIDIFactory([machine] { return std::make_shared<SimMIDI>(machine); });
    return backend;
}

std::unique_ptr<PlatformBackend> makePipeWire(std::string& error) {
    auto connection = std::make_shared<PipeWireConnection>();
    if (!connection->start(error))
        return nullptr;
    auto audio = std::make_shared<PipeWireAudioHardware>(connection);
    auto workspace = std::make_shared<PipeWireWorkspace>(connection);
    auto backend = std::make_unique<PlatformBackend>("pipewire", audio, workspace);
    // A connection of its own: MIDI's thread loop never waits behind the graph's.
    backend->setMIDIFactory([] { return std::make_shared<PipeWireMIDI>(); });
    return backend;
}
} // namespace

PlatformBackend::PlatformBackend(std::string name, std::shared_ptr<AudioHardware> audio,
                                 std::shared_ptr<Workspace> workspace)
    : name_(std::move(name)), audio_(std::move(audio)), workspace_(std::move(workspace)) {}

std::vector<DesktopEntry> PlatformBackend::installedApplications() const {
    if (auto machine = std::dynamic_pointer_cast<SimMachine>(audio_)) {
        std::vector<DesktopEntry> entries;
        for (const auto& app : machine->world()->installed)
            entries.push_back({app.bundleID, app.name, app.path, app.categories, {}, "Application"});
        return entries;
    }
    return DesktopEntries::read(DesktopEntries::applicationFolders(), DesktopEntries::currentLocale());
}

std::shared_ptr<MIDISystem> PlatformBackend::midi() {
    std::lock_guard<std::mutex> guard(midiLock_);
    if (!midi_ && midiFactory_)
        midi_ = midiFactory_();
    return midi_;
}

std::string PlatformBackend::requestedName() {
    const char* value = std::getenv(environmentVariable);
    if (value && *value)
        return value;
    // The real audio server where one answers for this user, else the simulated machine.
    return PipeWireConnection::serverAnswers() ? "pipewire" : "sim";
}

std::string PlatformBackend::simWorldPath() {
    const char* value = std::getenv(worldVariable);
    if (value && *value)
        return value;
    return Paths::supportDirectory() + "/sim-world.json";
}

PlatformBackend* PlatformBackend::current(std::string* error) {
    std::lock_guard<std::mutex> guard(backendMutex);
    if (backend)
        return backend.get();
    const std::string name = requestedName();
    std::string why;
    if (name == "sim") {
        backend = makeSim(why);
    } else if (name == "pipewire") {
        backend = makePipeWire(why);
    } else {
        why = "unknown audio backend \"" + name + "\" (expected sim or pipewire)";
    }
    if (!backend) {
        Log::info("tonavi: audio backend " + name + " unavailable: " + why);
        if (error)
            *error = why;
        return nullptr;
    }
    // Children (tap workers) inherit the same choice and the same world.
    ::setenv(environmentVariable, name.c_str(), 0);
    if (name == "sim")
        ::setenv(worldVariable, simWorldPath().c_str(), 0);
    return backend.get();
}

void PlatformBackend::install(std::unique_ptr<PlatformBackend> replacement) {
    std::lock_guard<std::mutex> guard(backendMutex);
    backend = std::move(replacement);
}

} // namespace tonavi
