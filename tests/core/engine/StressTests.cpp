#include "EngineTestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace tonavi::testing {
namespace {

// The audio thread renders while the control side applies configurations, reconciles against a
// slow provider, refreshes, releases and toggles stage mode, all at once, as the service's queues
// would. Run under ThreadSanitizer too: no race report, no deadlock, every handle destroyed once.
TEST(EngineConcurrency, RenderAgainstReconcileStageModeAndReleases) {
    AutoDuckRule rule;
    rule.triggerBundleID = "call";
    rule.duckedBundleIDs = {"a"};
    TonaviConfig base = configWith({appRow("a", 0.5), appRow("b", 0.7)});
    base.duckRules = {rule};
    EngineHarness h(base, false);
    h.taps->createDelay = std::chrono::microseconds(200);
    h.engine->setLoudnessGuard(true, -3.0);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    std::atomic<bool> done{false};
    std::atomic<long> cycles{0};

    std::thread audio([&] {
        std::vector<float> buffer(256);
        double hostTime = 0.0;
        while (!done.load()) {
            std::fill(buffer.begin(), buffer.end(), 0.5f);
            hostTime += 128.0 / 48000.0;
            h.engine->advanceDucking(128, hostTime);
            h.engine->render("a", buffer);
            for (float sample : buffer)
                ASSERT_TRUE(sample >= 0.0f && sample <= 0.5f);
            cycles.fetch_add(1);
        }
    });
    std::thread tapWork([&] {
        while (!done.load()) {
            h.engine->reconcile();
            h.engine->performTapRefresh("a");
        }
    });
    std::thread control([&] {
        int step = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            TonaviConfig next = base;
            next.apps[0].volume = (step % 5) * 0.2;
            next.apps[0].muted = step % 7 == 0;
            next.apps[1].volume = step % 2 ? 1.0 : 0.6;
            if (step % 11 == 0)
                next.duckRules[0].duckDB = -6.0 - step % 3;
            h.engine->setConfigWithoutReconcile(next);
            h.engine->setActiveTriggers(step % 3 ? EngagementEngine::IDSet{"call"}
                                                 : EngagementEngine::IDSet{});
            if (step % 13 == 0 || step % 13 == 6)
                h.engine->setStageMode(step % 13 == 0);
            if (step % 17 == 0)
                h.engine->releaseTap("a", "worker exited", h.engine->tapHandle("a"));
            (void)h.engine->tapWorkerState("a");
            ++step;
        }
        done.store(true);
    });
    control.join();
    tapWork.join();
    audio.join();

    EXPECT_GT(cycles.load(), 100);
    h.engine->releaseAllTapsForShutdown();
    EXPECT_EQ(h.taps->liveCount(), 0);
    const auto handles = h.taps->everyHandle();
    EXPECT_GT(handles.size(), 2u);
    for (const auto& handle : handles)
        EXPECT_EQ(h.taps->destroyCount(handle), 1);
}

} // namespace
} // namespace tonavi::testing
