#pragma once
// How a mixer shows what the status carries.

namespace tonavi::MixerPresentation {

// The lit segments of a ten-segment meter for a level in the meter's scale: the floor of ten times the
// level clamped to 0...1, counted in 32-bit arithmetic as the level is. 0 for a level that is not finite.
int meterSegments(float level);

} // namespace tonavi::MixerPresentation
