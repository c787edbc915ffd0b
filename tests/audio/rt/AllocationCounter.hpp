#pragma once
// Counts calls to the global operator new made on the current thread while a counter is alive.
// The replacement operators live in AllocationCounter.cpp, linked once into this test binary.
//
//   kavore::test::AllocationCounter counter;
//   processor.process(buffer);
//   EXPECT_EQ(counter.count(), 0u);

#include <cstddef>

namespace kavore::test {

class AllocationCounter {
  public:
    AllocationCounter();
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations on this thread since construction.
    std::size_t count() const;

  private:
    std::size_t start_;
};

} // namespace kavore::test
