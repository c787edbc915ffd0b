#include "audio/primitives/RingBuffer.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kavore {

namespace {

[[noreturn]] void fail(const char* message) {
    std::fprintf(stderr, "RingBuffer: %s\n", message);
    std::abort();
}

void copySamples(float* to, const float* from, std::int64_t count) {
    if (count > 0) {
        std::memcpy(to, from, static_cast<std::size_t>(count) * sizeof(float));
    }
}

} // namespace

RingBuffer::~RingBuffer() {
    releaseCells();
}

void RingBuffer::releaseCells() {
    kavore_atomic_int_destroy(writeIndex_);
    kavore_atomic_int_destroy(readIndex_);
    kavore_atomic_int_destroy(overrunCount_);
    writeIndex_ = readIndex_ = overrunCount_ = nullptr;
}

void RingBuffer::init(std::int64_t minimumCapacity) {
    if (minimumCapacity <= 0) {
        fail("capacity must be positive");
    }
    if (minimumCapacity > (std::int64_t{1} << 40)) {
        fail("capacity too large");
    }
    std::int64_t capacity = 1;
    while (capacity < minimumCapacity) {
        capacity <<= 1;
    }
    releaseCells();
    writeIndex_ = kavore_atomic_int_create(0);
    readIndex_ = kavore_atomic_int_create(0);
    overrunCount_ = kavore_atomic_int_create(0);
    if (writeIndex_ == nullptr || readIndex_ == nullptr || overrunCount_ == nullptr) {
        fail("cannot allocate index cells");
    }
    storage_.assign(static_cast<std::size_t>(capacity), 0.0f);
    capacity_ = capacity;
    mask_ = capacity - 1;
}

std::int64_t RingBuffer::available() const {
    if (writeIndex_ == nullptr) {
        return 0;
    }
    const std::int64_t w = kavore_atomic_int_load_acquire(writeIndex_);
    const std::int64_t r = kavore_atomic_int_load_acquire(readIndex_);
    return w - r;
}

std::int64_t RingBuffer::freeSpace() const {
    if (writeIndex_ == nullptr) {
        return 0;
    }
    return capacity_ - available();
}

std::int64_t RingBuffer::overrunCount() const {
    return overrunCount_ == nullptr ? 0 : kavore_atomic_int_load_relaxed(overrunCount_);
}

std::int64_t RingBuffer::write(const float* samples, std::int64_t count) {
    if (writeIndex_ == nullptr || count <= 0) {
        return 0;
    }
    const std::int64_t w = kavore_atomic_int_load_relaxed(writeIndex_);
    const std::int64_t r = kavore_atomic_int_load_acquire(readIndex_);
    const std::int64_t free = capacity_ - (w - r);
    const std::int64_t n = std::min(free, count);
    if (count > free) {
        kavore_atomic_int_fetch_add_relaxed(overrunCount_, count - n);
    }
    // At most two contiguous runs: up to the end of storage, then from its start.
    const std::int64_t start = w & mask_;
    const std::int64_t first = std::min(n, capacity_ - start);
    copySamples(storage_.data() + start, samples, first);
    copySamples(storage_.data(), samples + first, n - first);
    kavore_atomic_int_store_release(writeIndex_, w + n);
    return n;
}

std::int64_t RingBuffer::read(float* into, std::int64_t count) {
    if (readIndex_ == nullptr || count <= 0) {
        return 0;
    }
    const std::int64_t r = kavore_atomic_int_load_relaxed(readIndex_);
    const std::int64_t w = kavore_atomic_int_load_acquire(writeIndex_);
    const std::int64_t n = std::min(w - r, count);
    const std::int64_t start = r & mask_;
    const std::int64_t first = std::min(n, capacity_ - start);
    copySamples(into, storage_.data() + start, first);
    copySamples(into + first, storage_.data(), n - first);
    kavore_atomic_int_store_release(readIndex_, r + n);
    return n;
}

void RingBuffer::reset() {
    if (readIndex_ == nullptr) {
        return;
    }
    kavore_atomic_int_store_release(readIndex_, kavore_atomic_int_load_acquire(writeIndex_));
}

} // namespace kavore
