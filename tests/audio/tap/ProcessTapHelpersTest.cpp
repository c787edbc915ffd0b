#include "audio/tap/ProcessTapBufferSelector.hpp"
#include "audio/tap/ProcessTapOutputMapper.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace Selector = kavore::ProcessTapBufferSelector;

TEST(ProcessTapHelpers, SelectorPrefersTheLastStereoStreamAndMapperFeedsMonoAndWideDevices) {
    using Counts = std::vector<int>;
    EXPECT_EQ(Selector::index(Counts{2, 1, 2, 6}), 2u);
    EXPECT_EQ(Selector::index(Counts{4, 1, 0}), 1u);
    EXPECT_EQ(Selector::index(Counts{0, 0}), std::nullopt);
    EXPECT_EQ(Selector::index(Counts{}), std::nullopt);
    EXPECT_EQ(Selector::inputStreamUsage(Counts{2, 2, 1}), (std::vector<std::uint32_t>{0, 1, 0}));
    EXPECT_EQ(Selector::inputStreamUsage(Counts{0, 0}), (std::vector<std::uint32_t>{0, 0}));
    // Within the device's range; an unknown (zero) or inverted range takes what is asked.
    for (const auto& [low, high, asked, expected] : {std::tuple{64, 4096, 16, 64},
                                                     {64, 4096, 8192, 4096},
                                                     {64, 4096, 512, 512},
                                                     {0, 4096, 8192, 8192},
                                                     {512, 256, 8192, 8192}})
        EXPECT_EQ(Selector::preferredFrameSize(low, high, asked), expected) << low << "-" << high;

    // Mono gets the average; wider devices get stereo on their first two channels and silence beyond.
    for (const auto& [channel, count, expected] :
         {std::tuple{0, 1, 0.125f}, {0, 2, 0.5f}, {1, 6, -0.25f}, {2, 6, 0.0f}, {1, 1, 0.0f}, {-1, 2, 0.0f}})
        EXPECT_FLOAT_EQ(kavore::ProcessTapOutputMapper::sample(0.5f, -0.25f, channel, count), expected)
            << channel << " of " << count;
}
