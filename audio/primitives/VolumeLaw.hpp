#pragma once
// The fader law: a fader position in 0...1 maps to the square of itself as linear gain.

#include <string>

namespace kavore::VolumeLaw {

double gain(double fromFader);
double fader(double fromGain);
// -120 stands for silence.
double db(double fromFader);
// "−∞ dB" for a closed fader, otherwise one decimal, never "-0.0 dB".
std::string displayDB(double fromFader);

} // namespace kavore::VolumeLaw
