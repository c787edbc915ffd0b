#pragma once
// The simulated laptop for tap tests. With the manual clock, IO cycles run on the test's thread
// when it advances time, and the provider's wall clock follows the same clock.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "base/Log.hpp"
#include "platform/sim/SimMachine.hpp"
#include "platform/sim/SimWorkspace.hpp"
#include "service/taps/TonaviTapProvider.hpp"

namespace tonavi::test {

struct SimLaptop {
    static constexpr double epoch = 1'700'000'000.0;
    static constexpr const char* speakers = "BuiltInSpeakerDevice";
    static constexpr const char* usb = "AppleUSBAudioEngine:Acme:USB Headphones:1400000:1";

    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<SimMachine> machine;
    SimWorkspace workspace;
    std::string logPath =
        std::filesystem::temp_directory_path() / ("tonavi-taps-" + std::to_string(::getpid()));

    explicit SimLaptop(bool manualClock = true)
        : machine(std::make_shared<SimMachine>(SimWorld::preset(),
                                               SimMachine::Options{manualClock ? clock : nullptr})),
          workspace(machine) {
        std::filesystem::remove(logPath);
        Log::setFilePathForTesting(logPath);
    }
    ~SimLaptop() { std::filesystem::remove(logPath); }

    // Its wall clock is the epoch plus the manual clock's time.
    std::shared_ptr<TonaviTapProvider> makeProvider() {
        return TonaviTapProvider::make(*machine, workspace, [this] {
            return epoch + std::chrono::duration<double>(clock->now().time_since_epoch()).count();
        });
    }
    void edit(const std::function<std::string(SimWorld&)>& change) {
        if (const auto error = machine->mutate(change); !error.empty())
            throw std::runtime_error(error);
    }
    AudioObjectID processObject(const std::string& bundleID) const {
        const auto world = machine->world();
        for (const auto& p : world->processes)
            if (p.bundleID == bundleID)
                return p.id;
        return 0;
    }
    std::size_t timesLogged(const std::string& line) const {
        std::ifstream in(logPath);
        const std::string text(std::istreambuf_iterator<char>(in), {});
        std::size_t n = 0;
        for (auto at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
            ++n;
        return n;
    }
    bool logged(const std::string& line) const { return timesLogged(line) > 0; }
};

// Interleaved buffers for driving an IO cycle by hand: one vector per stream.
struct BufferSet {
    std::vector<std::vector<float>> streams;
    std::vector<AudioBuffer> buffers;

    BufferSet(const std::vector<std::uint32_t>& channels, std::size_t frames) {
        for (auto c : channels)
            streams.emplace_back(frames * c, 0.0f);
        for (std::size_t i = 0; i < channels.size(); ++i)
            buffers.push_back(
                {channels[i], static_cast<std::uint32_t>(streams[i].size() * 4), streams[i].data()});
    }
    AudioBufferList list() { return AudioBufferList{std::span<AudioBuffer>(buffers)}; }
};

} // namespace tonavi::test
