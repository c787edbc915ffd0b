#pragma once
// The backend that carries the platform boundary in this process, chosen once from
// TONAVI_AUDIO_BACKEND and inherited by child processes (the variable is set when absent).
// Without the variable, "pipewire" where a PipeWire server answers for this user, else "sim".

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/AudioHardware.hpp"
#include "platform/DesktopEntries.hpp"
#include "platform/MIDISystem.hpp"
#include "platform/Workspace.hpp"

namespace tonavi {

class PlatformBackend {
  public:
    static constexpr const char* environmentVariable = "TONAVI_AUDIO_BACKEND";
    static constexpr const char* worldVariable = "TONAVI_SIM_WORLD";

    // The process's backend, made at the first call; nullptr with a message when it cannot be made.
    static PlatformBackend* current(std::string* error = nullptr);
    // Replaces the process's backend (tests that drive a private machine).
    static void install(std::unique_ptr<PlatformBackend> backend);

    // The backend name the environment asks for; when it asks for none, "pipewire" if a server
    // answers, else "sim".
    static std::string requestedName();
    // TONAVI_SIM_WORLD, else "sim-world.json" in the support folder.
    static std::string simWorldPath();

    PlatformBackend(std::string name, std::shared_ptr<AudioHardware> audio,
                    std::shared_ptr<Workspace> workspace);
    const std::string& name() const { return name_; }
    AudioHardware& audio() { return *audio_; }
    Workspace& workspace() { return *workspace_; }
    const std::shared_ptr<AudioHardware>& sharedAudio() const { return audio_; }
    // The applications installed on this machine: the user's desktop entries on a real one, the
    // world's list on the simulated one. Reads files; blocks.
    std::vector<DesktopEntry> installedApplications() const;
    // The MIDI sources of this machine, made at the first call (tap workers never ask); null when
    // the backend has no MIDI.
    std::shared_ptr<MIDISystem> midi();
    void setMIDIFactory(std::function<std::shared_ptr<MIDISystem>()> factory) { midiFactory_ = std::move(factory); }

  private:
    std::mutex midiLock_; // leaf: guards the two fields below
    std::function<std::shared_ptr<MIDISystem>()> midiFactory_;
    std::shared_ptr<MIDISystem> midi_;
    std::string name_;
    std::shared_ptr<AudioHardware> audio_;
    std::shared_ptr<Workspace> workspace_;
};

} // namespace tonavi
