#pragma once
// The worker's side of its stdout: one event a line, whole lines only, from any thread.

#include "service/worker/TapWorkerEvent.hpp"

#include <mutex>

namespace tonavi {

class TapWorkerEventWriter {
  public:
    explicit TapWorkerEventWriter(int fd = 1) : fd_(fd) {}
    // Encodes, appends the line feed and writes the line under `lock`. Errors are dropped: a parent
    // that stopped reading is gone, and the parent watch ends this process.
    void send(const TapWorkerEvent& event);

  private:
    std::mutex lock_;
    const int fd_;
};

} // namespace tonavi
