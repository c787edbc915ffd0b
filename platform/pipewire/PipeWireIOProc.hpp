#pragma once
// One IO proc on a tap aggregate: a playback stream to the aggregate's main device in the taps'
// node.group, whose process callback (on PipeWire's data thread) takes the taps' newest captured
// buffers as input, zeroes its own buffer as output and calls the block. Buffers are made at
// start; the cycle allocates, locks and logs nothing.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/AudioHardware.hpp"

struct pw_stream;
struct spa_hook;
struct spa_source;

namespace tonavi {

class PipeWireConnection;
class PipeWireTap;

// Whether a triggered stream whose graph iteration never finished is triggered again. Asked every
// check with the stream's cycle count. Two quiet checks are longer than the longest quantum; a
// trigger runs at most one cycle, so more cycles than that mean the graph runs on its own again.
// After `kicksBeforeGivingUp` triggers that mended nothing it stops, so the stall goes stale.
class StallKick {
  public:
    static constexpr int quietChecks = 2, kicksBeforeGivingUp = 5;
    bool check(std::uint64_t cycles);

  private:
    std::uint64_t cyclesAtCheck_ = 0;
    int idleChecks_ = 0;
    int kicks_ = 0;
    bool kickedLastCheck_ = false;
};

class PipeWireIOProc {
  public:
    struct Target {
        std::string nodeName; // the main device's node.name
        std::uint32_t channels = 2;
        std::uint32_t rate = 48000;
        std::uint32_t frames = 512; // the quantum asked for with node.latency
        std::string group;
    };
    PipeWireIOProc(PipeWireConnection& connection, AudioDeviceIOBlock block);
    ~PipeWireIOProc();
    PipeWireIOProc(const PipeWireIOProc&) = delete;
    PipeWireIOProc& operator=(const PipeWireIOProc&) = delete;

    // Taps are read in order, one input buffer each; they must outlive the running proc. A tap whose
    // usage flag is 0 gives an input buffer without data (no flags: all on).
    bool start(const Target& target, const std::vector<PipeWireTap*>& taps,
               const std::vector<std::uint32_t>& inputUsage, std::string& error);
    void stop();
    bool isRunning() const { return stream_ != nullptr; }
    std::uint64_t cycles() const { return cycles_.load(std::memory_order_relaxed); }
    // Cycles in which a tap had no new buffer (its sink had not run yet): the input came a cycle late.
    std::uint64_t lateInputs() const { return lateInputs_.load(std::memory_order_relaxed); }
    // The delay PipeWire reports, in frames: the first tap's sink from its producers plus this
    // stream's to the device (queued and resampler frames included). -1 while not running.
    std::int64_t reportedLatencyFrames();
    const std::string& nodeName() const { return nodeName_; }

    static void process(void* data); // the stream's process callback
    // Every 100 ms on the connection's loop thread: a stalled cycle is triggered again (see start).
    static void checkForStall(void* data, std::uint64_t expirations);

  private:
    PipeWireConnection& connection_;
    AudioDeviceIOBlock block_;
    std::string nodeName_;
    pw_stream* stream_ = nullptr;
    std::unique_ptr<spa_hook> hook_;
    std::vector<PipeWireTap*> taps_;
    std::vector<std::vector<float>> inputData_;
    std::vector<AudioBuffer> inputBuffers_;
    AudioBuffer outputBuffer_{};
    std::uint32_t outputChannels_ = 2;
    std::uint32_t maxFrames_ = 0;
    double sampleTime_ = 0;
    std::atomic<std::uint64_t> cycles_{0};
    std::atomic<std::uint64_t> lateInputs_{0};
    // The stall check, on the connection's loop thread only.
    spa_source* stallTimer_ = nullptr;
    StallKick stallKick_;
};

} // namespace tonavi
