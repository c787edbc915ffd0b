#pragma once
// The platform's plug-in host: lists the effect plug-ins installed on the machine from their
// descriptions alone (no plug-in code runs for that), and loads one as a stereo unit. On Linux these
// are LV2 plug-ins through lilv; the same host serves the simulated machine and PipeWire, since it
// needs no audio hardware.
//
// A unit always presents stereo: a plug-in with one audio input and one output runs as two
// instances with the same parameters and state, one per channel; a plug-in whose audio ports cannot
// be mapped to stereo is listed with `stereoProblem` set and refused by `instantiate`.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

struct PluginParameter {
    std::string symbol;
    std::string name;
    float defaultValue = 0.0f;
    float minimum = 0.0f;
    float maximum = 1.0f;
};

struct PluginDescription {
    std::string uri;
    std::string name;
    std::string maker;
    std::vector<PluginParameter> parameters; // the input control ports, in port order
    std::string stereoProblem;                // why it cannot run on stereo; empty when it can

    const PluginParameter* parameter(std::string_view symbol) const;
};

// One loaded plug-in. Everything but `render` runs off the audio thread, and never at the same time
// as `render` (its owner serialises them).
class PluginUnit {
  public:
    // `render`'s status when the plug-in produced a sample that is not finite.
    static constexpr int nonFiniteOutput = -1;

    virtual ~PluginUnit() = default;
    virtual const PluginDescription& description() const = 0;
    // Connects buffers for up to `maxFrames` frames a call and activates. False with a reason.
    virtual bool prepare(std::uint32_t maxFrames, std::string& error) = 0;
    // Deactivates; `prepare` may be called again.
    virtual void release() = 0;
    // The bytes hold a state written by `saveState` (for LV2, the state in Turtle). False with a
    // reason, and nothing changed, when they do not describe a state of this plug-in.
    virtual bool restoreState(std::span<const std::uint8_t> bytes, std::string& error) = 0;
    virtual std::vector<std::uint8_t> saveState() = 0;
    // An input control port by symbol, clamped to its range; false for an unknown symbol.
    virtual bool setParameter(std::string_view symbol, float value) = 0;
    // Audio thread: planar stereo, `frames` at most the prepared maximum; 0 or a non-zero status.
    // Allocates nothing, takes no lock.
    virtual int render(const float* const in[2], float* const out[2], std::uint32_t frames) = 0;
    // The delay the plug-in reports, in frames, as of its last render.
    virtual double latencyFrames() const = 0;
};

// The two 32-bit codes that name a plug-in beside the effect type: the 64-bit FNV-1a hash of its URI,
// high half first. They depend on the URI alone, so they are the same on every scan and machine.
struct PluginCodes {
    std::uint32_t subtype = 0;
    std::uint32_t manufacturer = 0;
};
PluginCodes pluginCodes(std::string_view uri);

class PluginHost {
  public:
    virtual ~PluginHost() = default;
    // Reads the installed descriptions afresh (LV2: `LV2_PATH`, else the default folders).
    virtual std::vector<PluginDescription> rescan() = 0;
    // The descriptions of the last rescan (one is made first if none was).
    virtual std::vector<PluginDescription> plugins() = 0;
    // The URI of the installed plug-in with these codes, without reading every description.
    virtual std::optional<std::string> find(PluginCodes codes) = 0;
    // Loads the plug-in at the sample rate. May run plug-in code that blocks; call it off the audio
    // thread. Nothing with `error` set when the plug-in is unknown, refused or fails to load.
    virtual std::unique_ptr<PluginUnit> instantiate(const std::string& uri, double sampleRate,
                                                    std::string& error) = 0;

    // The process's host (LV2 through lilv on Linux).
    static std::shared_ptr<PluginHost> shared();
};

} // namespace tonavi
