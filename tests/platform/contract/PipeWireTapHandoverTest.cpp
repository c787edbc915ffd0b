// A tap replaced by a newer one of the same application, made by another connection (another
// process, as when the service moves an application to a new worker): the application's stream
// goes to the newest tap at once and stays there while both live and after the old one goes.

#include <gtest/gtest.h>

#include <cstring>

#include "ContractRig.hpp"
#include "platform/pipewire/PipeWireConnection.hpp"

namespace tonavi::test {
namespace {

using namespace std::chrono_literals;

// A tap of `pid` with an IO proc passing the tap on to `output`, on one connection.
struct TappedPath {
    PipeWireAudioHardware& audio;
    AudioObjectID tap = 0, device = 0;
    AudioDeviceIOProcID proc = 0;

    bool start(AudioObjectID process, const std::string& output, const std::string& uid) {
        auto description = TapDescription::stereoMixdown({process});
        description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
        if (audio.createProcessTap(description, tap) != noErr)
            return false;
        AggregateDeviceDescription aggregate;
        aggregate.uid = uid;
        aggregate.isPrivate = true;
        aggregate.mainSubDevice = output;
        aggregate.subDevices = {{output, true}};
        aggregate.taps = {{description.uuid, true}};
        auto pass = [](const AudioBufferList& in, AudioBufferList& out, const AudioTimeStamp&) {
            if (!in.mBuffers.empty() && in.mBuffers.back().mData)
                std::memcpy(out.mBuffers[0].mData, in.mBuffers.back().mData,
                            std::min(in.mBuffers.back().mDataByteSize, out.mBuffers[0].mDataByteSize));
        };
        return audio.createAggregateDevice(aggregate, device) == noErr &&
               audio.createIOProcIDWithBlock(device, nullptr, pass, proc) == noErr &&
               audio.deviceStart(device, proc) == noErr;
    }
    void stop() {
        audio.deviceStop(device, proc);
        audio.destroyIOProcID(device, proc);
        audio.destroyAggregateDevice(device);
        audio.destroyProcessTap(tap);
    }
};

// The target.object of the application's stream, and the serial of the tap's sink.
struct Routing {
    std::string target, sink;
};
Routing routingOf(const PipeWireGraph& g, pid_t pid, const std::string& sinkName) {
    Routing r;
    if (const auto* sink = g.nodeByName(sinkName))
        r.sink = sink->prop("object.serial");
    for (const auto& [global, n] : g.nodes)
        if (n.pid == pid && n.mediaClass() == "Stream/Output/Audio")
            if (auto meta = g.nodeMetadata.find(global); meta != g.nodeMetadata.end())
                if (auto t = meta->second.find("target.object"); t != meta->second.end())
                    r.target = t->second;
    return r;
}

TEST(PipeWireTapHandoverTest, TheNewestTapOfAnApplicationKeepsItsStream) {
    std::string why;
    auto* server = PrivatePipeWireServer::shared(&why);
    if (!server && PrivatePipeWireServer::programsMissing())
        GTEST_SKIP() << "no private PipeWire server: " << why;
    ASSERT_NE(server, nullptr) << why;
    PipeWireRig rig(*server);
    ASSERT_TRUE(rig.connected());
    PipeWireRig successor(*server); // another connection: the worker that replaces the first
    ASSERT_TRUE(successor.connected());
    PipeWireConnection observer;
    ASSERT_TRUE(observer.start(why)) << why;

    const App app = rig.startApp("org.tonavi.Handover", 660, AppKind::toneClient);
    TappedPath old{rig.pipewire()};
    ASSERT_TRUE(old.start(rig.processObject(app.pid), "speakers", "org.tonavi.handover.old"));
    const std::string oldSink = old.audio.tapNodeName(old.tap);
    ASSERT_TRUE(observer.waitUntil(
        [&](const PipeWireGraph& g) {
            const auto r = routingOf(g, app.pid, oldSink);
            return !r.sink.empty() && r.target == r.sink;
        },
        5000ms));

    TappedPath next{successor.pipewire()};
    ASSERT_TRUE(next.start(successor.processObject(app.pid), "headphones", "org.tonavi.handover.new"));
    const std::string newSink = next.audio.tapNodeName(next.tap);
    auto onNewest = [&](const PipeWireGraph& g) {
        const auto r = routingOf(g, app.pid, newSink);
        return !r.sink.empty() && r.target == r.sink;
    };
    ASSERT_TRUE(observer.waitUntil(onNewest, 5000ms));
    // While both live, the old tap does not take the stream back.
    EXPECT_FALSE(observer.waitUntil([&](const PipeWireGraph& g) { return !onNewest(g); }, 1000ms));

    old.stop();
    ASSERT_TRUE(observer.roundTrip());
    EXPECT_FALSE(observer.waitUntil([&](const PipeWireGraph& g) { return !onNewest(g); }, 500ms))
        << "the old tap's release moved the stream away from its successor";
    EXPECT_TRUE(eventually([&] { return rig.heard("headphones", app) && !rig.heard("speakers", app); }));
    next.stop();
}

} // namespace
} // namespace tonavi::test
