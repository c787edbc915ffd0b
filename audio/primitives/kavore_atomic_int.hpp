#pragma once
// A 64-bit integer in its own heap cell, reached through a pointer, so that a class can hold shared
// counters without embedding an atomic member (the cells stay put when their owner is moved).

#include <cstdint>

namespace kavore {

struct kavore_atomic_int;

// Allocates a cell holding value; null when the allocation fails.
kavore_atomic_int* kavore_atomic_int_create(std::int64_t value);
void kavore_atomic_int_destroy(kavore_atomic_int* cell);

std::int64_t kavore_atomic_int_load_relaxed(const kavore_atomic_int* cell);
std::int64_t kavore_atomic_int_load_acquire(const kavore_atomic_int* cell);
void kavore_atomic_int_store_release(kavore_atomic_int* cell, std::int64_t value);
// Returns the value held before the addition.
std::int64_t kavore_atomic_int_fetch_add_relaxed(kavore_atomic_int* cell, std::int64_t delta);

} // namespace kavore
