#pragma once
// Should the system's output move to a device that has just appeared? Someone who puts on
// headphones wants the sound there; someone already on headphones must not be moved.

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/outputs/AutomaticOutputCandidate.hpp"

namespace tonavi::AutomaticOutputPolicy {

// Worn or carried: Bluetooth, or a name with a personal word in it.
bool isPersonalAudio(std::string_view name, DeviceLiveStatus::Transport transport);
// Heard by a room: AirPlay, or a name with a room word as a whole token.
bool isRoomAudio(std::string_view name, DeviceLiveStatus::Transport transport);
// A name with one of the words that mark a device worn on the head.
bool isProtectedName(std::string_view name);

std::optional<std::string> pick(const std::set<std::string>& appearedUIDs,
                                const std::optional<AutomaticOutputCandidate>& current,
                                const std::vector<AutomaticOutputCandidate>& candidates,
                                const std::vector<std::string>& preferredUIDs);

} // namespace tonavi::AutomaticOutputPolicy
