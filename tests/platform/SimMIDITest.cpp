// MIDI on the simulated machine: sources in the world, messages to connected ports only, the setup
// change when a source comes, and nothing after a client is disposed. A message from another process
// through the world file is the MIDI end-to-end test's (`tonavictl sim midi` to the service).

#include "platform/sim/SimMIDI.hpp"
#include "tests/platform/SimTestSupport.hpp"

#include <gtest/gtest.h>

namespace tonavi {
namespace {

// A client with one port that keeps every word it receives and every notification.
struct Listener {
    explicit Listener(MIDISystem& system) : system(system) {
        EXPECT_EQ(system.clientCreate("Tonavi", [this](MIDINotificationMessageID id) { notified.push_back(id); }, client),
                  noErr);
        EXPECT_EQ(system.inputPortCreate(client, "TonaviIn", kMIDIProtocol_1_0,
                                         [this](const MIDIEventList& list) {
                                             std::lock_guard<std::mutex> guard(mutex);
                                             std::size_t at = 0;
                                             for (std::uint32_t p = 0; p < list.numPackets; ++p) {
                                                 const std::size_t n = list.words[at + 2];
                                                 words.insert(words.end(), list.words.begin() + at + 3,
                                                              list.words.begin() + at + 3 + n);
                                                 at += 3 + n;
                                             }
                                         },
                                         port),
                  noErr);
    }
    void connectAll() {
        for (std::size_t i = 0; i < system.numberOfSources(); ++i)
            EXPECT_EQ(system.portConnectSource(port, system.source(i)), noErr);
    }
    std::vector<std::uint32_t> received() {
        std::lock_guard<std::mutex> guard(mutex);
        return words;
    }

    MIDISystem& system;
    MIDIClientRef client = 0;
    MIDIPortRef port = 0;
    std::mutex mutex;
    std::vector<std::uint32_t> words;
    std::vector<MIDINotificationMessageID> notified; // on the mutating thread here
};

TEST(SimMIDI, ConnectedSourcesReachThePortAndOthersDoNot) {
    auto machine = std::make_shared<SimMachine>(SimWorld::preset());
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.sendMIDI("nanoKONTROL", {1}, 0); }), "");
    SimMIDI midi(machine);
    Listener listener(midi);
    ASSERT_EQ(midi.numberOfSources(), 1u);
    listener.connectAll();
    ASSERT_EQ(machine->mutate([](SimWorld& w) { return w.plugMIDISource("Pads"); }), "");
    EXPECT_EQ(listener.notified, std::vector<MIDINotificationMessageID>{kMIDIMsgSetupChanged});

    struct Send {
        const char* source;
        unsigned channel, controller, value;
        std::string refusal;
    };
    const std::vector<Send> sends = {
        {"nanoKONTROL", 1, 7, 127, ""},
        {"Pads", 2, 1, 1, ""}, // not connected yet: not heard
        {"nanoKONTROL", 16, 0, 0, ""},
        {"Keys", 1, 7, 1, "no MIDI source \"Keys\" (sources: nanoKONTROL, Pads)"},
        {"nanoKONTROL", 0, 7, 1, "a MIDI channel is 1 to 16"},
        {"nanoKONTROL", 17, 7, 1, "a MIDI channel is 1 to 16"},
        {"nanoKONTROL", 1, 128, 1, "a controller and its value are 0 to 127"},
    };
    for (const auto& s : sends)
        EXPECT_EQ(SimMIDI::sendControlChange(*machine, s.source, s.channel, s.controller, s.value), s.refusal)
            << s.source << " " << s.channel;
    // The message sent before the client existed is not delivered either.
    EXPECT_EQ(listener.received(), (std::vector<std::uint32_t>{0x20B0077Fu, 0x20BF0000u}));

    midi.clientDispose(listener.client);
    ASSERT_EQ(SimMIDI::sendControlChange(*machine, "nanoKONTROL", 1, 7, 5), "");
    EXPECT_EQ(listener.received().size(), 2u);
}

} // namespace
} // namespace tonavi
