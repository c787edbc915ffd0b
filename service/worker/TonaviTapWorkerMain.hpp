#pragma once
// The same executable serves as an isolated tap worker when started with "--tonavi-tap-worker":
// one worker owns the tap of one app and renders it with its own engine, so a crash or a stall
// touches that app alone. Stdin carries the service's envelopes, stdout the worker's events.

#include <string>

namespace tonavi::TonaviTapWorkerMain {

constexpr const char* flag = "--tonavi-tap-worker";

// Exit statuses of a worker process.
constexpr int exitNormal = 0;        // after "stop" or the end of input; also when the parent goes
constexpr int exitUsage = 64;        // no bundle identifier
constexpr int exitNoState = 65;      // the first line is not a state for this app
constexpr int exitNoTap = 66;        // the tap could not be made, or its IO never proved valid
constexpr int exitUnavailable = 70;  // the parent is already gone at start

// Returns normally when the flag is absent. With the flag it never returns: without a bundle identifier
// after it the process exits with 64; otherwise it runs the worker and exits with its result.
void runIfRequested(int argc, char** argv);

// The worker's life for one app, over this process's stdin and stdout. An empty route follows the
// default output at creation.
int run(const std::string& bundleID, const std::string& routeUID);

}  // namespace tonavi::TonaviTapWorkerMain
