// The PipeWire backend's naming rules, on graphs built by hand: transport words, bundle
// identifiers, default entries and channel counts.

#include <gtest/gtest.h>

#include <fstream>

#include "SimTestSupport.hpp"
#include "core/smart/AudioOnsetPolicy.hpp"
#include "platform/pipewire/PipeWireGraph.hpp"
#include "platform/pipewire/PipeWireIOProc.hpp"

namespace tonavi {
namespace {

using Properties = PipeWireGraph::Properties;

PipeWireGraph::Node nodeWith(Properties props, std::vector<float> volumes = {}) {
    PipeWireGraph::Node node;
    node.props = std::move(props), node.channelVolumes = std::move(volumes);
    return node;
}

TEST(PipeWireGraphTest, TransportComesFromApiBusFactoryAndName) {
    const Properties onDevice7 = {{"device.id", "7"}};
    const std::tuple<Properties, Properties, std::uint32_t> cases[] = {
        // node, its device, transport
        {{{"device.api", "bluez5"}}, {}, kAudioDeviceTransportTypeBluetooth},
        {onDevice7, {{"device.api", "alsa"}, {"device.bus", "usb"}}, kAudioDeviceTransportTypeUSB},
        {onDevice7, {{"device.api", "alsa"}, {"device.bus", "pci"}}, kAudioDeviceTransportTypeBuiltIn},
        {{{"node.name", "raop_sink.living-room"}}, {}, kAudioDeviceTransportTypeAirPlay},
        {{{"node.name", "combine_sink"}}, {}, kAudioDeviceTransportTypeAggregate},
        {{{"factory.name", "support.null-audio-sink"}}, {}, kAudioDeviceTransportTypeVirtual},
        {{{"node.virtual", "true"}}, {}, kAudioDeviceTransportTypeVirtual},
        {{{"device.api", "v4l2"}}, {}, kAudioDeviceTransportTypeUnknown},
    };
    for (const auto& [props, device, transport] : cases) {
        PipeWireGraph graph;
        graph.devices[7] = device;
        EXPECT_EQ(fourCharString(graph.transportOf(nodeWith(props))), fourCharString(transport))
            << props.begin()->second;
    }
}

TEST(PipeWireGraphTest, BundleIdentifierPrefersTheApplicationIdThenFlatpakThenDesktopEntryThenBinary) {
    test::TempFolder folder;
    std::filesystem::create_directories(folder.file("applications"));
    std::ofstream(folder.file("applications/org.example.Player.desktop"))
        << "[Desktop Entry]\nName=Player\nExec=/usr/bin/tonavi-test-player %U\n";
    ::setenv("XDG_DATA_HOME", folder.file("").c_str(), 1);
    const std::pair<Properties, std::string> cases[] = {
        {{{"application.id", "org.example.Named"}, {"pipewire.access.portal.app_id", "org.example.Flat"}},
         "org.example.Named"},
        {{{"pipewire.access.portal.app_id", "org.example.Flat"}, {"application.process.binary", "flat"}},
         "org.example.Flat"},
        {{{"application.process.binary", "tonavi-test-player"}}, "org.example.Player"},
    };
    for (auto [props, bundleID] : cases) {
        PipeWireGraph graph;
        props["application.process.id"] = "4242";
        graph.clients[5] = {5, props};
        EXPECT_EQ(graph.bundleIdentifierOf(4242) + "|" + graph.bundleIdentifierOf(4243), bundleID + "|");
    }
    ::unsetenv("XDG_DATA_HOME");
}

TEST(PipeWireGraphTest, AProcessPlayingOnlyEventSoundsIsTheAlertPlayerOfTheTrail) {
    // The trail knows the alert player by this identifier; the backend must answer the same one.
    EXPECT_EQ(PipeWireGraph::alertBundleID, AudioOnsetPolicy::alertSourceID);
    auto stream = [](std::string role, std::string mediaClass = "Stream/Output/Audio") {
        PipeWireGraph::Node n = nodeWith({{"media.role", role}});
        n.mediaClassValue = std::move(mediaClass);
        n.pid = 4242;
        return n;
    };
    const std::pair<std::vector<PipeWireGraph::Node>, std::string> cases[] = {
        {{stream("Event")}, "systemsoundserverd"},
        {{stream("event"), stream("Notification")}, "systemsoundserverd"},
        {{stream("Event"), stream("Music")}, "org.example.Player"}, // an application's own beeps are its own
        {{stream("Event", "Stream/Input/Audio")}, "org.example.Player"},
        {{stream("")}, "org.example.Player"},
        {{}, "org.example.Player"},
    };
    for (const auto& [nodes, bundleID] : cases) {
        PipeWireGraph graph;
        graph.clients[5] = {5, {{"application.id", "org.example.Player"}, {"application.process.id", "4242"}}};
        std::uint32_t global = 10;
        for (const auto& n : nodes)
            graph.nodes[global++] = n;
        EXPECT_EQ(graph.bundleIdentifierOf(4242), bundleID) << nodes.size() << " streams";
    }
}

// A stalled triggered stream is kicked after two quiet checks, at most five times while the kicks
// mend nothing; the graph running on its own again (more cycles than a kick makes) starts afresh.
TEST(PipeWireGraphTest, AStalledTriggeredStreamIsKickedAFewTimesThenLeftToGoStale) {
    StallKick kick;
    std::string seen;
    // Cycle counts at each check: running, then stalled with each kick's one cycle, then running
    // again, then stalled again.
    for (std::uint64_t cycles : {5, 10, 10, 10, 11, 12, 13, 14, 15, 15, 15, 40, 40, 40})
        seen += kick.check(cycles) ? 'K' : '.';
    EXPECT_EQ(seen, "...KKKKK.....K");
}

TEST(PipeWireGraphTest, DefaultsAndChannelCountsReadWhatTheServerWrites) {
    PipeWireGraph graph;
    graph.defaults = {{"default.audio.sink", R"({"name":"speakers"})"}, {"default.audio.source", "speakers"}};
    // Not JSON names no node; nor does an absent entry.
    EXPECT_EQ(graph.defaultNodeName("default.audio.sink") + "|" +
                  graph.defaultNodeName("default.audio.source") + "|" +
                  graph.defaultNodeName("default.video.source"),
              "speakers||");
    const std::tuple<Properties, std::vector<float>, std::uint32_t> cases[] = {
        // props, volumes, channels
        {{{"audio.channels", "6"}}, {1, 1}, 6},
        {{}, {1, 1, 1, 1}, 4},
        {{{"audio.position", "[ FL FR FC ]"}}, {}, 3},
        {{}, {}, 2},
    };
    for (const auto& [props, volumes, channels] : cases)
        EXPECT_EQ(nodeWith(props, volumes).channelCount(), channels);
}

} // namespace
} // namespace tonavi
