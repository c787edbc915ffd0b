#pragma once
// Which plug-in slot a worker's thread is inside, kept so that a plug-in that crashes or hangs its
// worker can be named: the crash handler writes last words naming the slot its thread was running,
// and the metrics tick notices a render that has not come back. Both read fixed buffers filled
// without allocation, so the audio thread and a signal handler may use them.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tonavi::AURunningSlot {

enum class Activity { render, load };

// The calling thread enters or leaves plug-in code for the slot.
void enter(Activity activity, std::string_view slotID);
void leave(Activity activity);

// The slot whose render has been running for longer than `limitSeconds`, if any.
std::optional<std::string> stalledRender(double limitSeconds);

// Crash signals write one "au-failure" line naming the slot the crashing thread was inside to `fd`,
// then end the process as the signal would have.
void installCrashReport(int fd);

} // namespace tonavi::AURunningSlot
