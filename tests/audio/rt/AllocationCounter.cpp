#include "tests/audio/rt/AllocationCounter.hpp"

#include <cstdlib>
#include <new>

namespace {

using kavore::test::activeCounters;
using kavore::test::allocationsOnThisThread;
using kavore::test::freesOnThisThread;

// Counts the allocation and returns a block; when there is none, null for the nothrow forms.
void* allocate(std::size_t size, std::size_t alignment = 0, bool nothrow = false) {
    allocationsOnThisThread += activeCounters > 0 ? 1 : 0;
    const std::size_t rounded = alignment == 0 ? 0 : (size + alignment - 1) / alignment * alignment;
    void* p = alignment == 0 ? std::malloc(size == 0 ? 1 : size)
                             : std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
    if (!p && !nothrow)
        throw std::bad_alloc();
    return p;
}

void release(void* p) noexcept {
    freesOnThisThread += activeCounters > 0 && p ? 1 : 0;
    std::free(p);
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
    return allocate(size, 0, true);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, 0, true);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* p) noexcept {
    release(p);
}
void operator delete[](void* p) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
