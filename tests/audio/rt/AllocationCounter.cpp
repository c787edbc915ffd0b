#include "tests/audio/rt/AllocationCounter.hpp"

#include <cstdlib>
#include <new>

namespace {

using kavore::test::activeCounters;
using kavore::test::allocationsOnThisThread;

// Counts the allocation and returns a block, null when there is none.
void* counted(std::size_t size, std::size_t alignment = 0) {
    allocationsOnThisThread += activeCounters > 0 ? 1 : 0;
    if (alignment == 0)
        return std::malloc(size == 0 ? 1 : size);
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    return std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
}

void* allocate(std::size_t size, std::size_t alignment = 0) {
    if (void* p = counted(size, alignment))
        return p;
    throw std::bad_alloc();
}

} // namespace

// Every form is replaced, not only those the standard library forwards: a sanitizer runtime brings
// its own versions of the rest, and a mix of the two would pair foreign allocations with free().
void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return counted(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return counted(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
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
