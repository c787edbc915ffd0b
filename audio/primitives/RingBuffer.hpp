#pragma once
// A lock-free ring of float samples for exactly one writer thread and one reader thread.
// The indices grow without bound and are masked only when storage is touched, so w - r is
// always the number of samples buffered.

#include "audio/primitives/kavore_atomic_int.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kavore {

class RingBuffer {
  public:
    RingBuffer() = default;
    explicit RingBuffer(std::int64_t minimumCapacity) { init(minimumCapacity); }
    ~RingBuffer();

    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    // Allocates zeroed storage of the smallest power of two at or above minimumCapacity.
    // A non-positive capacity, or a failure to allocate the index cells, stops the process.
    // Not for use while another thread reads or writes.
    void init(std::int64_t minimumCapacity);

    std::int64_t capacity() const { return capacity_; }
    std::int64_t available() const;
    std::int64_t freeSpace() const;
    std::int64_t overrunCount() const;

    // Writer side. Moves as many samples as fit; the rest (the newest) are dropped and counted.
    std::int64_t write(const float* samples, std::int64_t count);
    // Reader side. Returns the number of samples moved, possibly fewer than count.
    std::int64_t read(float* into, std::int64_t count);
    // Reader side: discards what is buffered without touching the writer's index.
    void reset();

  private:
    void releaseCells();

    std::vector<float> storage_;
    std::int64_t capacity_ = 0;
    std::int64_t mask_ = 0;
    kavore_atomic_int* writeIndex_ = nullptr;
    kavore_atomic_int* readIndex_ = nullptr;
    kavore_atomic_int* overrunCount_ = nullptr;
};

} // namespace kavore
