#pragma once
// A default-output switch that only says it happened once the system was seen to report the new
// device. It holds no state and takes every effect as a closure, so it runs without hardware.
// UIDs compare exactly; an unknown current UID is never the target.

#include <functional>
#include <optional>
#include <string>

namespace tonavi::VerifiedOutputSwitch {

using CurrentUID = std::function<std::optional<std::string>()>;
using Schedule = std::function<void(std::function<void()>)>;

// Blocking: asks once, then checks after each of `attempts` waits.
bool perform(const std::string& targetUID, int attempts, const std::function<bool()>& request,
             const CurrentUID& currentUID, const std::function<void()>& wait);

// Polls by rescheduling itself; ends with completion(false) as soon as isCurrent() turns false.
void performAsync(const std::string& targetUID, int attempts, const std::function<bool()>& request,
                  const CurrentUID& currentUID, const std::function<bool()>& isCurrent,
                  const Schedule& schedule, const std::function<void(bool)>& completion);

// Both hardware touches answer by continuation, so the caller never blocks. `attempts` delays give
// attempts + 1 reads of the current UID.
void performNonblocking(
    const std::string& targetUID, int attempts, const std::function<void(std::function<void(bool)>)>& request,
    const std::function<void(std::function<void(std::optional<std::string>)>)>& currentUID,
    const std::function<bool()>& isCurrent, const Schedule& schedule,
    const std::function<void(bool)>& completion);

// What a failed switch tells the user: where it was asked to go, and where the output stayed.
std::string failureText(const std::string& targetName, const std::string& currentName);

} // namespace tonavi::VerifiedOutputSwitch
