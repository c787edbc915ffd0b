#include "audio/primitives/kavore_atomic_int.hpp"

#include <atomic>
#include <new>

namespace kavore {

struct kavore_atomic_int {
    std::atomic<std::int64_t> value;
};

static_assert(sizeof(kavore_atomic_int) == 8, "one cell is one 64-bit word");
static_assert(std::atomic<std::int64_t>::is_always_lock_free, "the audio thread needs lock-free cells");

kavore_atomic_int* kavore_atomic_int_create(std::int64_t value) {
    return new (std::nothrow) kavore_atomic_int{value};
}

void kavore_atomic_int_destroy(kavore_atomic_int* cell) {
    delete cell;
}

std::int64_t kavore_atomic_int_load_relaxed(const kavore_atomic_int* cell) {
    return cell->value.load(std::memory_order_relaxed);
}

std::int64_t kavore_atomic_int_load_acquire(const kavore_atomic_int* cell) {
    return cell->value.load(std::memory_order_acquire);
}

void kavore_atomic_int_store_release(kavore_atomic_int* cell, std::int64_t value) {
    cell->value.store(value, std::memory_order_release);
}

std::int64_t kavore_atomic_int_fetch_add_relaxed(kavore_atomic_int* cell, std::int64_t delta) {
    return cell->value.fetch_add(delta, std::memory_order_relaxed);
}

} // namespace kavore
