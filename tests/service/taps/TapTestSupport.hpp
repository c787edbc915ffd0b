#pragma once
// The simulated laptop for tap tests, stepped by a manual clock: IO cycles run on the test's thread
// when it advances time, and the provider's wall clock follows the same clock. The hardware seen by
// the provider forwards to the machine and keeps the last IO block it was given, so a test can also
// drive that block with buffers of its own.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>

#include "base/Log.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/taps/TonaviTapProvider.hpp"

namespace tonavi::test {

class BlockCapturingHardware final : public AudioHardware {
  public:
    explicit BlockCapturingHardware(SimMachine& machine) : m_(machine) {}

    AudioDeviceIOBlock lastBlock;

    OSStatus getPropertyData(AudioObjectID o, const AudioObjectPropertyAddress& a, AudioPropertyValue& v) override {
        return m_.getPropertyData(o, a, v);
    }
    OSStatus getPropertyDataSize(AudioObjectID o, const AudioObjectPropertyAddress& a, std::uint32_t& s) override {
        return m_.getPropertyDataSize(o, a, s);
    }
    OSStatus setPropertyData(AudioObjectID o, const AudioObjectPropertyAddress& a,
                             const AudioPropertyValue& v) override {
        return m_.setPropertyData(o, a, v);
    }
    bool hasProperty(AudioObjectID o, const AudioObjectPropertyAddress& a) override { return m_.hasProperty(o, a); }
    OSStatus isPropertySettable(AudioObjectID o, const AudioObjectPropertyAddress& a, bool& s) override {
        return m_.isPropertySettable(o, a, s);
    }
    OSStatus addPropertyListener(AudioObjectID o, const AudioObjectPropertyAddress& a, DispatchQueue& q,
                                 const AudioObjectPropertyListenerBlock& b) override {
        return m_.addPropertyListener(o, a, q, b);
    }
    OSStatus removePropertyListener(AudioObjectID o, const AudioObjectPropertyAddress& a, DispatchQueue& q,
                                    const AudioObjectPropertyListenerBlock& b) override {
        return m_.removePropertyListener(o, a, q, b);
    }
    OSStatus createProcessTap(const TapDescription& d, AudioObjectID& t) override { return m_.createProcessTap(d, t); }
    OSStatus destroyProcessTap(AudioObjectID t) override { return m_.destroyProcessTap(t); }
    OSStatus createAggregateDevice(const AggregateDeviceDescription& d, AudioObjectID& id) override {
        return m_.createAggregateDevice(d, id);
    }
    OSStatus destroyAggregateDevice(AudioObjectID d) override { return m_.destroyAggregateDevice(d); }
    OSStatus createIOProcIDWithBlock(AudioObjectID d, DispatchQueue* q, AudioDeviceIOBlock b,
                                     AudioDeviceIOProcID& id) override {
        lastBlock = b;
        return m_.createIOProcIDWithBlock(d, q, std::move(b), id);
    }
    OSStatus destroyIOProcID(AudioObjectID d, AudioDeviceIOProcID id) override { return m_.destroyIOProcID(d, id); }
    OSStatus deviceStart(AudioObjectID d, AudioDeviceIOProcID id) override { return m_.deviceStart(d, id); }
    OSStatus deviceStop(AudioObjectID d, AudioDeviceIOProcID id) override { return m_.deviceStop(d, id); }
    std::uint64_t currentHostTime() override { return m_.currentHostTime(); }
    std::uint64_t convertHostTimeToNanos(std::uint64_t t) override { return m_.convertHostTimeToNanos(t); }

  private:
    SimMachine& m_;
};

struct SimLaptop {
    static constexpr double epoch = 1'700'000'000.0;
    static constexpr const char* speakers = "BuiltInSpeakerDevice";
    static constexpr const char* usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";
    static constexpr const char* earbuds = "AC-DE-48-00-11-22:output";

    // Without the manual clock, IO cycles run on real-time-like threads of their own.
    explicit SimLaptop(bool manualClock = true)
        : clock(std::make_shared<ManualClock>()),
          machine(std::make_shared<SimMachine>(
              SimWorld::preset(),
              SimMachine::Options{manualClock ? clock : nullptr, std::chrono::milliseconds(20)})),
          workspace(machine), hardware(*machine) {
        logPath = (std::filesystem::temp_directory_path() /
                   ("tonavi-taps-" + std::to_string(::getpid()) + "-" +
                    std::to_string(reinterpret_cast<std::uintptr_t>(this)) + ".log"))
                      .string();
        std::filesystem::remove(logPath);
        Log::setFilePathForTesting(logPath);
    }
    ~SimLaptop() { std::filesystem::remove(logPath); }

    std::shared_ptr<ManualClock> clock;
    std::shared_ptr<SimMachine> machine;
    SimWorkspace workspace;
    BlockCapturingHardware hardware;
    std::string logPath;

    double wallNow() const { return epoch + std::chrono::duration<double>(clock->now().time_since_epoch()).count(); }
    std::shared_ptr<TonaviTapProvider> makeProvider() {
        return TonaviTapProvider::make(hardware, workspace, [this] { return wallNow(); });
    }
    void advance(std::chrono::nanoseconds by) { clock->advance(by); }

    void edit(const std::function<std::string(SimWorld&)>& change) {
        const auto error = machine->mutate(change);
        if (!error.empty())
            throw std::runtime_error(error);
    }
    AudioObjectID processObject(const std::string& bundleID) const {
        for (const auto& p : machine->world()->processes)
            if (p.bundleID == bundleID)
                return p.id;
        return 0;
    }
    std::string log() const {
        std::ifstream in(logPath);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    bool logged(const std::string& line) const { return log().find(line) != std::string::npos; }
    std::size_t timesLogged(const std::string& line) const {
        const auto text = log();
        std::size_t n = 0;
        for (auto at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    }
};

} // namespace tonavi::test

namespace tonavi::test {

// Interleaved buffers for driving an IO block by hand: one vector per stream.
struct BufferSet {
    std::vector<std::vector<float>> streams;
    std::vector<AudioBuffer> buffers;

    BufferSet(const std::vector<std::uint32_t>& channels, std::size_t frames) {
        for (auto c : channels)
            streams.emplace_back(frames * c, 0.0f);
        for (std::size_t i = 0; i < channels.size(); ++i)
            buffers.push_back({channels[i], static_cast<std::uint32_t>(streams[i].size() * sizeof(float)),
                               streams[i].data()});
    }
    AudioBufferList list() { return AudioBufferList{std::span<AudioBuffer>(buffers)}; }
};

} // namespace tonavi::test
