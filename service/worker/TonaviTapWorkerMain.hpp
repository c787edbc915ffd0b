#pragma once
// The same executable serves as an isolated tap worker when started with "--tonavi-tap-worker".

namespace tonavi::TonaviTapWorkerMain {

constexpr const char* flag = "--tonavi-tap-worker";

// Exit statuses of a worker process.
constexpr int exitUsage = 64;
constexpr int exitUnavailable = 70;

// Returns normally when the flag is absent. With the flag it never returns: without a bundle identifier
// after it the process exits with 64; otherwise it runs the worker and exits with its result.
void runIfRequested(int argc, char** argv);

}  // namespace tonavi::TonaviTapWorkerMain
