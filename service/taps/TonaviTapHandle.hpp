#pragma once
// One live tap: the process tap, the aggregate device around it and the IO proc that renders it.
// Made and torn down by TonaviTapProvider; the engine only compares it by identity.
//
// Ownership of the fields: everything above `renderBuffer` is written once by createTap before IO
// starts and only read afterwards. `renderBuffer` and `meter` belong to the IO block. The counters,
// `outputBufferFrames` and `meterLevel` are written by the IO block and read by anyone without a
// lock. `lastIOAt` and `lastRawAudioAt` are derived from the counters' movement by whoever watches
// them (the worker's metrics timer), never by the IO block.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio/primitives/LevelMeter.hpp"
#include "core/engine/TapProviding.hpp"
#include "platform/AudioHardwareTypes.hpp"
#include "service/taps/TapProcessIdentity.hpp"

namespace tonavi {

class TonaviTapHandle final : public TapHandle {
  public:
    static constexpr const char* deviceStreamForm = "device-stream";
    static constexpr const char* mixdownForm = "mixdown-compensated";

    std::string bundleID;
    double createdAt = 0; // seconds since 1970
    AudioObjectID tapID = 0;
    AudioObjectID aggregateID = 0;
    std::string sourceDeviceUID; // the default output when created
    std::optional<AudioDeviceIOProcID> ioProcID;
    float tapGainCompensation = 1.0f;
    std::string tapForm = deviceStreamForm;
    double sampleRate = 0;
    int tapBufferFrames = 0;
    std::size_t tapInputBufferIndex = 0; // the tap's stream among the aggregate's inputs
    TapProcessIdentity processIdentity;
    std::string targetDeviceUID;

    // The largest quantum either audio system hands an IO cycle (PipeWire's default ceiling; Core
    // Audio stops at 4096). The render buffer is sized for it once, so that a change of quantum never
    // allocates on the IO thread; a larger cycle still renders, in pieces of this size.
    static constexpr std::size_t largestQuantumFrames = 8192;

    // IO block only: interleaved stereo, `largestQuantumFrames` x 2 or more, and the meter over it.
    std::vector<float> renderBuffer;
    kavore::LevelMeter meter{0.6f, 0.08f};

    std::atomic<int> outputBufferFrames{0};
    std::atomic<std::uint64_t> ioCallbackCount{0};       // cycles that wrote a valid output
    std::atomic<std::uint64_t> rawAudioCallbackCount{0}; // cycles whose tapped input was not silent
    std::atomic<float> meterLevel{0.0f};                 // the meter's RMS x 3, clamped to 0...1
    std::atomic<double> lastIOAt{0.0};                   // creation time at first
    std::atomic<double> lastRawAudioAt{0.0};
};

} // namespace tonavi
