#include "tests/audio/rt/AllocationCounter.hpp"

#include <cstdlib>
#include <new>

namespace {

// Plain thread-locals of trivial type: touching them never allocates.
thread_local std::size_t allocationsOnThisThread = 0;
thread_local int activeCounters = 0;

void noteAllocation() {
    if (activeCounters > 0) {
        ++allocationsOnThisThread;
    }
}

void* allocate(std::size_t size) {
    noteAllocation();
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
    noteAllocation();
    const auto a = static_cast<std::size_t>(alignment);
    const std::size_t rounded = (size + a - 1) / a * a;
    if (void* p = std::aligned_alloc(a, rounded == 0 ? a : rounded)) {
        return p;
    }
    throw std::bad_alloc();
}

} // namespace

namespace kavore::test {

AllocationCounter::AllocationCounter() : start_(allocationsOnThisThread) {
    ++activeCounters;
}
AllocationCounter::~AllocationCounter() {
    --activeCounters;
}
std::size_t AllocationCounter::count() const {
    return allocationsOnThisThread - start_;
}

} // namespace kavore::test

// Every form is replaced, not only those the standard library forwards: a sanitizer runtime brings
// its own versions of the rest, and a mix of the two would pair foreign allocations with free().
void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    noteAllocation();
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    noteAllocation();
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateAligned(size, alignment);
}

void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
