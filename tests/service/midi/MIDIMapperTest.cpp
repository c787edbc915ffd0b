// The mapper's reading of event lists: which words are Control Changes, their channel, controller and
// value, which mappings fire, and how packets are walked.

#include "service/midi/MIDIMapper.hpp"

#include "base/Log.hpp"
#include "tests/core/config/ConfigTestSupport.hpp"
#include "tests/service/FakeMIDISystem.hpp"
#include "tests/support/TempFolder.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>

namespace tonavi {
namespace {

using testing::FakeMIDISystem;
using Packet = std::vector<std::uint32_t>;

struct Fired {
    std::string id;
    double value; // exactly the controller value over 127
    bool operator==(const Fired&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Fired& f) { return out << f.id << "=" << f.value; }
};

struct Case {
    const char* name;
    std::vector<MIDIMapping> mappings;
    std::vector<Packet> packets;
    std::vector<Fired> expected;
};

MIDIMapping volume(std::string id, std::int64_t channel, std::int64_t cc) {
    return {std::move(id), channel, cc, MIDIMapping::AppVolume{"com.example.a"}};
}

constexpr std::uint32_t noteOn = 0x20903C64u;    // channel 1, note 60, velocity 100
constexpr std::uint32_t pitchBend = 0x20E00040u; // channel 1
constexpr std::uint32_t midi2ControlChange = 0x40B00700u; // message type 4, controller 7

class MIDIMapperTest : public ::testing::Test {
  protected:
    void SetUp() override { Log::setFilePathForTesting(folder.file("service.log")); }
    std::vector<Fired> run(const std::vector<MIDIMapping>& mappings, const std::vector<Packet>& packets) {
        MIDIMapper mapper(system, queue);
        std::vector<Fired> fired; // written on the trigger queue only
        mapper.setOnTrigger([&](const MIDIMapping& m, double value) { fired.push_back({m.id, value}); });
        mapper.setMappings(mappings);
        MIDIEventListBuilder builder;
        for (const auto& p : packets)
            builder.add(0x1122334455667788ull, p);
        mapper.handle(builder.list());
        queue.sync([] {});
        return fired;
    }

    bool logged(const std::string& line) const {
        return testing::readText(folder.file("service.log")).find(line) != std::string::npos;
    }

    test::TempFolder folder;
    std::shared_ptr<FakeMIDISystem> system = std::make_shared<FakeMIDISystem>();
    DispatchQueue queue{"test.midi-triggers"};
};

TEST_F(MIDIMapperTest, ControlChangesFireTheMappingsTheyMatch) {
    const double v64 = 64 / 127.0;
    const std::vector<Case> cases = {
        {"channel 0 fires on every channel",
         {volume("any", 0, 7)},
         {{umpControlChange(0, 7, 127), umpControlChange(15, 7, 0)}},
         {{"any", 1.0}, {"any", 0.0}}},
        {"channel 1 fires for status 0xB0 only",
         {volume("one", 1, 7)},
         {{umpControlChange(0, 7, 64), umpControlChange(1, 7, 64)}},
         {{"one", v64}}},
        {"channel 16 is status 0xBF",
         {volume("sixteen", 16, 7)},
         {{umpControlChange(15, 7, 10), umpControlChange(0, 7, 10)}},
         {{"sixteen", 10 / 127.0}}},
        {"127 is 1.0, 64 is 0.5039, 63 is under the middle",
         {volume("v", 0, 1)},
         {{umpControlChange(0, 1, 127), umpControlChange(0, 1, 64), umpControlChange(0, 1, 63)}},
         {{"v", 1.0}, {"v", v64}, {"v", 63 / 127.0}}},
        {"another controller does not fire", {volume("v", 0, 7)}, {{umpControlChange(0, 8, 127)}}, {}},
        {"Note On, pitch bend and MIDI 2.0 words are ignored",
         {volume("v", 0, 7), volume("note", 0, 0x3C)},
         {{noteOn, pitchBend, midi2ControlChange}},
         {}},
        {"the group nibble is ignored", {volume("v", 0, 7)}, {{umpControlChange(0, 7, 127) | 0x0F000000u}}, {{"v", 1.0}}},
        {"two mappings on one controller both fire, in order",
         {volume("first", 0, 7), {"second", 1, 7, MIDIMapping::StageMode{}}},
         {{umpControlChange(0, 7, 127)}},
         {{"first", 1.0}, {"second", 1.0}}},
        {"a packet of zero words is stepped over",
         {volume("v", 0, 7)},
         {{}, {umpControlChange(0, 7, 127)}, {}, {noteOn, umpControlChange(2, 7, 0)}},
         {{"v", 1.0}, {"v", 0.0}}},
        {"no mappings, no triggers", {}, {{umpControlChange(0, 7, 127)}}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(run(c.mappings, c.packets), c.expected);
    }
}

TEST_F(MIDIMapperTest, AListShorterThanItsPacketsSayIsReadOnlyAsFarAsItGoes) {
    MIDIMapper mapper(system, queue);
    int fired = 0;
    mapper.setOnTrigger([&](const MIDIMapping&, double) { ++fired; });
    mapper.setMappings({volume("v", 0, 7)});
    // One packet that claims four words and carries one, then a second packet that is not there.
    const std::vector<std::uint32_t> words = {0, 0, 4, umpControlChange(0, 7, 1)};
    mapper.handle(MIDIEventList{kMIDIProtocol_1_0, 2, words});
    queue.sync([] {});
    EXPECT_EQ(fired, 1);
}

TEST_F(MIDIMapperTest, StartConnectsEverySourceAndAgainWhenTheSetupChanges) {
    system->sources = {11, 12};
    MIDIMapper mapper(system, queue);
    mapper.start();
    EXPECT_EQ(system->clientName, "Tonavi");
    EXPECT_EQ(system->portName, "TonaviIn");
    EXPECT_EQ(system->portProtocol, kMIDIProtocol_1_0);
    EXPECT_EQ(system->connected, (std::set<MIDIEndpointRef>{11, 12}));
    system->plug(13);
    EXPECT_EQ(system->connected, (std::set<MIDIEndpointRef>{11, 12, 13}));
    EXPECT_TRUE(logged("tonavi: MIDI mapper listening (2 sources)"));
}

TEST_F(MIDIMapperTest, ARefusedClientIsLoggedAndLeavesNoPort) {
    system->refuseClient = kMIDIServerStartErr;
    {
        MIDIMapper mapper(system, queue);
        mapper.start();
        EXPECT_EQ(mapper.client(), 0u);
        EXPECT_EQ(mapper.inputPort(), 0u);
        mapper.setMappings({volume("v", 0, 7)}); // the list still works
        EXPECT_EQ(mapper.mappings().size(), 1u);
    }
    EXPECT_FALSE(system->receiveBlock);
    EXPECT_TRUE(logged("tonavi: MIDI client failed (-10845)"));
}

TEST_F(MIDIMapperTest, ATriggerPostedBeforeTheMapperWentDoesNothing) {
    int fired = 0;
    queue.sync([&] {
        // The queue is held while the mapper posts and goes, so the trigger runs after it is gone.
        MIDIMapper mapper(system, queue);
        mapper.setOnTrigger([&](const MIDIMapping&, double) { ++fired; });
        mapper.setMappings({volume("v", 0, 7)});
        mapper.start();
        system->sendControlChange(0, 7, 127);
    });
    queue.sync([] {});
    EXPECT_EQ(fired, 0);
    EXPECT_TRUE(system->disposed);
}

TEST(MIDIBytes, ChannelVoiceBytesBecomeUMPWords) {
    struct BytesCase {
        const char* name;
        std::vector<std::uint8_t> bytes;
        std::vector<std::uint32_t> words;
    };
    const std::vector<BytesCase> cases = {
        {"a control change", {0xB3, 7, 100}, {umpControlChange(3, 7, 100)}},
        {"running status", {0xB0, 7, 1, 8, 2}, {umpControlChange(0, 7, 1), umpControlChange(0, 8, 2)}},
        {"program change has one data byte", {0xC1, 5, 0xB1, 1, 2}, {0x20C10500u, umpControlChange(1, 1, 2)}},
        {"a clock byte inside a message", {0xB0, 7, 0xF8, 9}, {umpControlChange(0, 7, 9)}},
        {"SysEx gives nothing and ends running status", {0xB0, 1, 2, 0xF0, 1, 2, 3, 0xF7, 4, 5}, {umpControlChange(0, 1, 2)}},
        {"data without a status", {7, 9}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::uint8_t status = 0;
        EXPECT_EQ(umpWordsFromMIDI1Bytes(c.bytes, status), c.words);
    }
}

} // namespace
} // namespace tonavi
