#pragma once
// Counts calls to the global operator new made on the current thread while a counter is alive.
// The replacement operators live in AllocationCounter.cpp, linked once into this test binary.
//
//   kavore::test::AllocationCounter counter;
//   processor.process(buffer);
//   EXPECT_EQ(counter.count(), 0u);

#include <cstddef>

namespace kavore::test {

// Plain thread-locals of trivial type: touching them never allocates.
inline thread_local std::size_t allocationsOnThisThread = 0;
inline thread_local std::size_t freesOnThisThread = 0;
inline thread_local int activeCounters = 0;

class AllocationCounter {
  public:
    AllocationCounter() { ++activeCounters; }
    ~AllocationCounter() { --activeCounters; }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations on this thread since construction.
    std::size_t count() const { return allocationsOnThisThread - start_; }
    // Blocks given back on this thread since construction.
    std::size_t frees() const { return freesOnThisThread - freesStart_; }

  private:
    const std::size_t start_ = allocationsOnThisThread;
    const std::size_t freesStart_ = freesOnThisThread;
};

} // namespace kavore::test
