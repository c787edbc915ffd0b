#include "audio/tap/ProcessTapBufferSelector.hpp"
#include "audio/tap/ProcessTapOutputMapper.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace Selector = kavore::ProcessTapBufferSelector;
namespace Mapper = kavore::ProcessTapOutputMapper;

TEST(ProcessTapBufferSelector, PrefersTheLastStereoStreamThenTheLastNonEmptyOne) {
    using Counts = std::vector<int>;
    EXPECT_EQ(Selector::index(Counts{2, 1, 2, 6}), 2u);
    EXPECT_EQ(Selector::index(Counts{4, 1, 0}), 1u);
    EXPECT_EQ(Selector::index(Counts{0, 0}), std::nullopt);
    EXPECT_EQ(Selector::index(Counts{}), std::nullopt);

    EXPECT_EQ(Selector::inputStreamUsage(Counts{2, 2, 1}), (std::vector<std::uint32_t>{0, 1, 0}));
    EXPECT_EQ(Selector::inputStreamUsage(Counts{0, 0}), (std::vector<std::uint32_t>{0, 0}));

    EXPECT_EQ(Selector::preferredFrameSize(64, 4096, 16), 64);
    EXPECT_EQ(Selector::preferredFrameSize(64, 4096, 8192), 4096);
    EXPECT_EQ(Selector::preferredFrameSize(64, 4096, 512), 512);
    EXPECT_EQ(Selector::preferredFrameSize(0, 4096, 8192), 8192) << "unknown range";
    EXPECT_EQ(Selector::preferredFrameSize(512, 256, 8192), 8192) << "inverted range";
}

TEST(ProcessTapOutputMapper, MonoGetsTheAverageAndWideDevicesGetStereoOnTheFirstTwo) {
    EXPECT_FLOAT_EQ(Mapper::sample(0.5f, -0.25f, 0, 1), 0.125f);
    EXPECT_FLOAT_EQ(Mapper::sample(0.5f, -0.25f, 0, 2), 0.5f);
    EXPECT_FLOAT_EQ(Mapper::sample(0.5f, -0.25f, 1, 6), -0.25f);
    EXPECT_EQ(Mapper::sample(0.5f, -0.25f, 2, 6), 0.0f);
    EXPECT_EQ(Mapper::sample(0.5f, -0.25f, 1, 1), 0.0f);
    EXPECT_EQ(Mapper::sample(0.5f, -0.25f, -1, 2), 0.0f);
}
