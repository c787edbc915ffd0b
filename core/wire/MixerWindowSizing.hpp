#pragma once
// The sizing rules of a mixer window, in points: how large it may be made, and how large it should be to
// show a number of application rows. A terminal mixer has no use for them; a windowed client does.

namespace tonavi::MixerWindowSizing {

struct Size {
    double width = 0;
    double height = 0;

    bool operator==(const Size&) const = default;
};

// The size a user asks for, kept at least 500 by 420 and within what is available (itself taken as
// 500...1100 each way).
Size constrained(Size size, Size available);

// A size that fits `rows` application rows (fewer than one count as one): tall rows when `compact` or
// when less than 1050 points are available across, short ones otherwise.
Size fittedRows(int rows, Size available, bool compact);

} // namespace tonavi::MixerWindowSizing
