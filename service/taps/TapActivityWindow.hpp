#pragma once
// Whether a tap has carried sound lately. A tap that never carried sound counts from its creation,
// so a new tap is not called idle before it had a chance to hear anything.

#include <optional>

namespace tonavi::TapActivityWindow {

// Nothing when a time is not finite; else false only when the last sound (or the creation) is more
// than `within` seconds before `now`. `lastIOAt` takes part only in the finiteness check.
std::optional<bool> recentSignal(double lastRawAudioAt, double createdAt, double lastIOAt, double now,
                                 double within);
// The last sound (or the creation) is more than `olderThan` seconds before `now`.
bool isRawAudioInactive(double lastRawAudioAt, double createdAt, double now, double olderThan);

} // namespace tonavi::TapActivityWindow
