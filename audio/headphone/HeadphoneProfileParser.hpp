#pragma once
// Reads the plain-text parametric EQ format in which headphone measurements are published:
//   Preamp: -6.2 dB
//   Filter 1: ON PK Fc 105 Hz Gain -3.2 dB Q 0.71
//   Filter 2: ON LSC Fc 105 Hz Gain 5.5 dB Q 0.70

#include "audio/headphone/HeadphoneProfile.hpp"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kavore::HeadphoneProfileParser {

class ParseError : public std::runtime_error {
  public:
    enum class Kind { badLine, empty };

    static ParseError badLine(std::string line);
    static ParseError empty();

    Kind kind() const { return kind_; }
    // The offending line for badLine, empty otherwise.
    const std::string& line() const { return line_; }

  private:
    ParseError(Kind kind, std::string line, const std::string& description);

    Kind kind_;
    std::string line_;
};

// A profile with a fresh id, or ParseError. Nothing of a partly read text is kept.
HeadphoneProfile parse(std::string_view text, std::string name);

// The numbers written in a piece of text, in order: "Fc 105 Hz Gain -3.2 dB" gives 105, -3.2.
std::vector<double> numbers(std::string_view text);

} // namespace kavore::HeadphoneProfileParser
