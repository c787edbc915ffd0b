// The plug-in bridge runs on the tap's real-time thread: a worker rendering through live LV2 plug-ins
// (a mono one run per channel, a stereo one) must not touch the heap, in one chunk or several.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "platform/PluginHost.hpp"
#include "service/plugins/AUCatalogue.hpp"
#include "service/worker/TapWorkerEventWriter.hpp"
#include "service/worker/TapWorkerRenderer.hpp"
#include "tests/audio/rt/AllocationCounter.hpp"
#include "tests/platform/support/Eventually.hpp"
#include "tests/support/TestPlugins.hpp"

namespace tonavi {
namespace {

kavore::EffectSlot pluginSlot(const std::string& id, const std::string& uri, const std::string& parameters) {
    test::useTestPlugins();
    for (const auto& d : PluginHost::shared()->plugins())
        if (d.uri == uri) {
            kavore::EffectSlot slot;
            slot.id = id;
            slot.kind = kavore::EffectKind::audioUnit;
            slot.auComponent = AUCatalogue::componentKey(d);
            slot.settingsJSON.assign(parameters.begin(), parameters.end());
            return slot;
        }
    ADD_FAILURE() << uri << " is not on LV2_PATH";
    return {};
}

TEST(PluginBridge, RenderingThroughLivePluginsNeverAllocates) {
    TapWorkerState state;
    state.app.id = "com.apple.Music";
    state.app.displayName = "Music";
    state.app.chain.slots = {pluginSlot("G", "http://tonavi.test/plugins/gain", R"({"parameters":{"gain":2}})"),
                             pluginSlot("D", "http://tonavi.test/plugins/delay", R"({"parameters":{"frames":0}})")};
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    TapWorkerEventWriter writer(devNull);
    TapWorkerRenderer renderer(state, writer, 48000.0);
    renderer.enableAudioUnits();

    for (const std::size_t frames : {256u, 10000u}) {
        std::vector<float> buffer(2 * frames);
        const auto renderOnce = [&] {
            std::fill(buffer.begin(), buffer.end(), 0.25f);
            renderer.render(buffer, static_cast<long long>(frames), 0.0);
            return buffer.back();
        };
        ASSERT_TRUE(test::eventually([&] { return std::abs(renderOnce() - 0.5f) < 1e-6f; }, std::chrono::seconds(5)))
            << "the plug-ins never went live: " << buffer.back();
        std::size_t allocations = 0;
        {
            kavore::test::AllocationCounter counter;
            for (int i = 0; i < 50; ++i)
                renderer.render(buffer, static_cast<long long>(frames), 0.0);
            allocations = counter.count();
        }
        EXPECT_EQ(allocations, 0u) << frames << " frames";
    }
    ::close(devNull);
}

} // namespace
} // namespace tonavi
