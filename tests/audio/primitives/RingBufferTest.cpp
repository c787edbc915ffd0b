#include "audio/primitives/RingBuffer.hpp"

#include <gtest/gtest.h>

#include <numeric>
#include <thread>
#include <vector>

using kavore::RingBuffer;

TEST(RingBuffer, CapacityIsTheNextPowerOfTwo) {
    EXPECT_EQ(RingBuffer(1).capacity(), 1);
    EXPECT_EQ(RingBuffer(3).capacity(), 4);
    EXPECT_EQ(RingBuffer(1000).capacity(), 1024);
    EXPECT_EQ(RingBuffer(1024).capacity(), 1024);
    EXPECT_EQ(RingBuffer(1025).capacity(), 2048);
}

TEST(RingBufferDeathTest, NonPositiveCapacityStopsTheProcess) {
    EXPECT_DEATH(RingBuffer(0), "capacity");
    EXPECT_DEATH(RingBuffer(-5), "capacity");
}

TEST(RingBuffer, OverrunDropsTheNewestSamplesAndCountsThem) {
    RingBuffer ring(8);
    const std::vector<float> first{1, 2, 3, 4};
    std::vector<float> second(10);
    std::iota(second.begin(), second.end(), 100.0f);

    EXPECT_EQ(ring.write(first.data(), 4), 4);
    EXPECT_EQ(ring.freeSpace(), 4);
    EXPECT_EQ(ring.write(second.data(), 10), 4);
    EXPECT_EQ(ring.overrunCount(), 6);
    EXPECT_EQ(ring.available(), 8);

    std::vector<float> out(16, -1.0f);
    EXPECT_EQ(ring.read(out.data(), 16), 8);
    EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 8),
              (std::vector<float>{1, 2, 3, 4, 100, 101, 102, 103}));
    EXPECT_EQ(out[8], -1.0f) << "nothing beyond what was available is written";
    EXPECT_EQ(ring.read(out.data(), 4), 0);
}

TEST(RingBuffer, WrapsAroundInOrderAndResetDiscardsOnlyWhatIsBuffered) {
    RingBuffer ring(8);
    float next = 0.0f;
    float expected = 0.0f;
    std::vector<float> chunk(5);
    std::vector<float> out(5);
    for (int round = 0; round < 20; ++round) { // 100 samples through 8 slots
        for (float& s : chunk) {
            s = next++;
        }
        ASSERT_EQ(ring.write(chunk.data(), 5), 5);
        ASSERT_EQ(ring.read(out.data(), 5), 5);
        for (const float s : out) {
            ASSERT_EQ(s, expected++);
        }
    }
    EXPECT_EQ(ring.overrunCount(), 0);

    ring.write(chunk.data(), 3);
    ring.reset();
    EXPECT_EQ(ring.available(), 0);
    EXPECT_EQ(ring.freeSpace(), 8);
    const float marker = 42.0f;
    ring.write(&marker, 1);
    EXPECT_EQ(ring.read(out.data(), 5), 1);
    EXPECT_EQ(out[0], 42.0f);
}

// Run under ThreadSanitizer as well: one writer and one reader move a counting sequence, the writer
// never writing more than there is room for, so nothing may be lost, duplicated or reordered.
TEST(RingBuffer, OneWriterAndOneReaderMoveEverySampleInOrder) {
    constexpr int total = 1 << 20;
    RingBuffer ring(256);
    std::thread writer([&] {
        std::vector<float> chunk(100);
        int sent = 0;
        while (sent < total) {
            const auto room = static_cast<int>(ring.freeSpace());
            const int n = std::min({room, static_cast<int>(chunk.size()), total - sent});
            if (n == 0) {
                std::this_thread::yield();
                continue;
            }
            for (int i = 0; i < n; ++i) {
                chunk[static_cast<std::size_t>(i)] = static_cast<float>(sent + i);
            }
            sent += static_cast<int>(ring.write(chunk.data(), n));
        }
    });
    std::vector<float> out(77);
    int received = 0;
    bool inOrder = true;
    while (received < total) {
        const auto n = static_cast<int>(ring.read(out.data(), static_cast<std::int64_t>(out.size())));
        if (n == 0) {
            std::this_thread::yield();
            continue;
        }
        for (int i = 0; i < n; ++i) {
            inOrder = inOrder && out[static_cast<std::size_t>(i)] == static_cast<float>(received + i);
        }
        received += n;
    }
    writer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(received, total);
    EXPECT_EQ(ring.overrunCount(), 0);
    EXPECT_EQ(ring.available(), 0);
}
