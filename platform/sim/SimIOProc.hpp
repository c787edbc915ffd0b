#pragma once
// One IO proc of the simulated machine: the hardware side of a device's IO cycle. Each cycle it
// fills the input buffers (the tapped processes' tones on tap streams, silence on microphone
// streams), zeroes the outputs, calls the client's block, then meters and optionally records what
// the block wrote. Cycles run on a real-time-like thread paced at the device's rate and buffer
// size, or one by one from a manual clock. Nothing on the cycle path allocates, locks or logs.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/AudioHardware.hpp"

namespace tonavi {

class SimIOProc {
  public:
    static constexpr std::size_t maxTapStreams = 4;
    static constexpr std::size_t maxSourcesPerStream = 8;

    struct Tone {
        double frequency = 0;
        double amplitude = 0; // linear peak
    };
    struct Layout {
        std::vector<std::uint32_t> inputStreams;
        // Per input stream: the tap slot (0...maxTapStreams-1) it carries, or -1 for a device's own input.
        std::vector<int> tapSlotOfStream;
        std::vector<std::string> tapUUIDs; // by slot
        std::vector<std::uint32_t> outputStreams;
        double sampleRate = 48000.0;
        std::uint32_t frames = 512;
    };
    struct Meter {
        double peakDB = -120.0;
        double rmsDB = -120.0;
        double frequency = 0.0; // from upward zero crossings of the first output channel
        std::uint64_t cycles = 0;
    };

    SimIOProc(AudioDeviceIOProcID id, AudioObjectID device, AudioDeviceIOBlock block);
    ~SimIOProc();

    AudioDeviceIOProcID id() const { return id_; }
    AudioObjectID device() const { return device_; }
    bool isRunning() const { return running_; }
    const Layout& layout() const { return layout_; }

    // One flag per stream of the scope; absent flags count as on. Takes effect at the next start.
    void setStreamUsage(bool input, std::vector<std::uint32_t> flags);
    std::vector<std::uint32_t> streamUsage(bool input, std::size_t streams) const;

    // Allocates the buffers for `layout`; not while running.
    void prepare(const Layout& layout);
    // Publishes the tones of one tap slot; safe while cycles run.
    void setTones(std::size_t slot, std::span<const Tone> tones);
    // While stalled, cycles pass without calling the block, as when a device stops delivering.
    void setStalled(bool stalled) { stalled_.store(stalled, std::memory_order_relaxed); }

    // Runs one cycle now with the given host time (nanoseconds).
    void runCycle(std::uint64_t hostTime);
    // Paced cycles on a thread of their own, host time from the steady clock.
    void startThread();
    void stopThread();
    void setRunning(bool running) { running_ = running; }
    // Host time of the next due cycle in stepped mode.
    std::uint64_t nextCycleHostTime = 0;
    std::uint64_t cyclePeriodNanos() const;

    Meter meter() const;
    // Records what the block writes to all output channels, up to `seconds`; written at stop.
    std::string startRecording(const std::string& path, double seconds);
    std::string stopRecording();
    // A recording has filled its buffer and waits for stopRecording to write it.
    bool isRecordingComplete() const;

  private:
    struct Recording {
        std::string path;
        std::vector<float> samples;
        std::uint32_t channels = 0;
        std::atomic<std::size_t> frames{0};
        std::atomic<bool> active{true};
    };

    void fillInputs();
    void meterAndRecord();

    const AudioDeviceIOProcID id_;
    const AudioObjectID device_;
    AudioDeviceIOBlock block_;
    Layout layout_;
    std::vector<std::uint32_t> inputUsage_;
    std::vector<std::uint32_t> outputUsage_;
    bool running_ = false;

    std::vector<std::vector<float>> inputStorage_;
    std::vector<std::vector<float>> outputStorage_;
    std::vector<AudioBuffer> inputBuffers_;
    std::vector<AudioBuffer> outputBuffers_;
    double sampleTime_ = 0;

    // Tones by slot, published with a sequence counter so that a cycle reads a consistent set.
    std::atomic<std::uint32_t> toneSequence_{0};
    std::array<std::atomic<std::uint32_t>, maxTapStreams> toneCount_{};
    std::array<std::array<std::atomic<double>, maxSourcesPerStream>, maxTapStreams> toneFrequency_{};
    std::array<std::array<std::atomic<double>, maxSourcesPerStream>, maxTapStreams> toneAmplitude_{};
    std::array<std::array<double, maxSourcesPerStream>, maxTapStreams> phase_{};

    // Metering window, owned by the cycle; results published through atomics.
    double windowPeak_ = 0;
    double windowSumSquares_ = 0;
    std::uint64_t windowSamples_ = 0;
    std::uint64_t windowFrames_ = 0;
    std::uint32_t windowCrossings_ = 0;
    float lastFirstChannel_ = 0;
    std::atomic<double> meterPeak_{0};
    std::atomic<double> meterRMS_{0};
    std::atomic<double> meterFrequency_{0};
    std::atomic<std::uint64_t> cycles_{0};

    std::mutex recordingMutex_; // guards starting and stopping, never taken by the cycle
    std::atomic<Recording*> recording_{nullptr};
    std::vector<std::unique_ptr<Recording>> recordings_;

    std::atomic<bool> stalled_{false};
    std::thread thread_;
    std::atomic<bool> threadStop_{false};
};

} // namespace tonavi
