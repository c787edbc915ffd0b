#include "audio/primitives/RingBuffer.hpp"

#include <gtest/gtest.h>

#include <numeric>
#include <thread>
#include <vector>

using kavore::RingBuffer;

TEST(RingBuffer, CapacityIsTheNextPowerOfTwo) {
    for (const auto& [asked, capacity] : {std::pair{1, 1}, {3, 4}, {1000, 1024}, {1024, 1024}, {1025, 2048}})
        EXPECT_EQ(RingBuffer(asked).capacity(), capacity) << asked;
}

TEST(RingBufferDeathTest, NonPositiveCapacityStopsTheProcess) {
    EXPECT_DEATH(RingBuffer(0), "capacity");
    EXPECT_DEATH(RingBuffer(-5), "capacity");
}

TEST(RingBuffer, OverrunDropsTheNewestSamplesAndResetDiscardsOnlyWhatIsBuffered) {
    RingBuffer ring(8);
    std::vector<float> in(14);
    std::iota(in.begin(), in.end(), 1.0f);
    EXPECT_EQ(ring.write(in.data(), 4), 4);
    EXPECT_EQ(ring.freeSpace(), 4);
    EXPECT_EQ(ring.write(in.data() + 4, 10), 4);
    EXPECT_EQ(ring.overrunCount(), 6);

    std::vector<float> out(16, -1.0f);
    EXPECT_EQ(ring.read(out.data(), 16), 8);
    EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 9),
              (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, -1}))
        << "nothing beyond what was available is written";
    EXPECT_EQ(ring.read(out.data(), 4), 0);

    ring.write(in.data(), 3);
    ring.reset();
    EXPECT_EQ(ring.freeSpace(), 8);
    ring.write(in.data() + 9, 1);
    EXPECT_EQ(ring.read(out.data(), 5), 1);
    EXPECT_EQ(out[0], 10.0f);
}

// Run under ThreadSanitizer as well: one writer and one reader move a counting sequence through a
// ring much smaller than it, wrapping many times; nothing may be lost, duplicated or reordered.
TEST(RingBuffer, OneWriterAndOneReaderMoveEverySampleInOrder) {
    constexpr int total = 1 << 20;
    RingBuffer ring(256);
    std::thread writer([&] {
        std::vector<float> chunk(100);
        for (int sent = 0; sent < total;) {
            const int n = std::min({static_cast<int>(ring.freeSpace()), 100, total - sent});
            for (int i = 0; i < n; ++i)
                chunk[static_cast<std::size_t>(i)] = static_cast<float>(sent + i);
            sent += static_cast<int>(ring.write(chunk.data(), n));
            if (n == 0)
                std::this_thread::yield();
        }
    });
    std::vector<float> out(77);
    int received = 0;
    bool inOrder = true;
    while (received < total) {
        const auto n = static_cast<int>(ring.read(out.data(), 77));
        for (int i = 0; i < n; ++i)
            inOrder = inOrder && out[static_cast<std::size_t>(i)] == static_cast<float>(received + i);
        received += n;
        if (n == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(ring.overrunCount(), 0);
    EXPECT_EQ(ring.available(), 0);
}
