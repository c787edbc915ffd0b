#include "audio/headphone/BundledHeadphoneProfiles.hpp"
#include "audio/headphone/HeadphoneEQ.hpp"
#include "audio/headphone/HeadphoneProfileParser.hpp"

#include "base/Encoding.hpp"
#include "tests/audio/AudioTestSupport.hpp"

#include <gtest/gtest.h>

using namespace kavore;
namespace Parser = kavore::HeadphoneProfileParser;
using Kind = kavore::ParametricFilter::Kind;

// The preamp and the cascade shape the response; reconfiguring clears the filter state, and a
// disabled or absent profile leaves the audio alone.
TEST(HeadphoneEQ, PreampAndCascadeShapeTheResponseAndReconfiguringClearsState) {
    HeadphoneEQ eq;
    const auto processed = [&](std::vector<float> b) {
        eq.process(b);
        return b;
    };
    const HeadphoneProfile profile{"id", "test", -6.0, {{Kind::peaking, 1000.0, 6.0, 1.0}}};
    eq.configure(&profile, 48000, true);
    ASSERT_TRUE(eq.active());
    // Channels are not told apart: the interleaved buffer is one stream through one cascade.
    for (const auto& [hz, expectedDB] : {std::pair{1000.0, 0.0}, {20.0, -6.0}}) {
        auto buffer = test::monoSine(hz, 0.5, 48000, 96000);
        const std::span<const float> tail(buffer.data() + 48000, 48000);
        const double in = test::rms(tail);
        eq.process(buffer);
        EXPECT_NEAR(test::dbRatio(test::rms(tail), in), expectedDB, 0.01) << hz;
    }
    HeadphoneProfile silent = profile;
    silent.preampDB = -120.0;
    eq.configure(&silent, 48000, true);
    EXPECT_EQ(processed({0.5f, 0.5f}), (std::vector<float>{0.0f, 0.0f}));

    const auto& bundled = BundledHeadphoneProfiles::all().front();
    eq.configure(&bundled, 48000, true);
    std::vector<float> impulse(64, 0.0f);
    impulse[0] = 1.0f;
    EXPECT_NE(processed(impulse)[10], 0.0f);
    eq.configure(&bundled, 48000, true); // same profile: rebuilt with zero state
    EXPECT_EQ(processed(std::vector<float>(16, 0.0f)), std::vector<float>(16, 0.0f));
    eq.configure(&bundled, 48000, false);
    EXPECT_EQ(processed({0.25f, -0.5f}), (std::vector<float>{0.25f, -0.5f})) << "disabled";
    eq.configure(&bundled, 48000, true);
    eq.configure(nullptr, 48000, true);
    EXPECT_FALSE(eq.active());
}

namespace {

Parser::ParseError parseError(const std::string& text) {
    try {
        Parser::parse(text, "x");
    } catch (const Parser::ParseError& e) {
        return e;
    }
    ADD_FAILURE() << "no error for: " << text;
    return Parser::ParseError::empty();
}

} // namespace

TEST(HeadphoneProfileParser, ReadsPublishedParametricText) {
    const std::string text = "# measured 2024\n"
                             "Preamp: -3 dB\n"
                             "\n"
                             "\tFilter 1: ON PK Fc 105 Hz Gain -3.2 dB Q 0.71  \n"
                             "Filter 2: OFF None Fc 0 Hz Gain 0 dB Q 0\n"
                             "Filter 3: ON LSC Fc 80 Hz Gain 5.5 dB Q 0.70\n"
                             "Filter 4: ON HS Fc 9000 Hz Gain -2 dB\n"
                             "Some commentary line\n"
                             "PREAMP: -6.5 dB\n";
    const auto profile = Parser::parse(text, "My Phones");
    EXPECT_EQ(profile.name, "My Phones");
    EXPECT_TRUE(tonavi::isUUID(profile.id));
    EXPECT_NE(profile.id, Parser::parse(text, "My Phones").id);
    EXPECT_DOUBLE_EQ(profile.preampDB, -6.5) << "the last preamp line wins";
    EXPECT_EQ(profile.filters, (std::vector<ParametricFilter>{{Kind::peaking, 105.0, -3.2, 0.71},
                                                              {Kind::lowShelf, 80.0, 5.5, 0.70},
                                                              {Kind::highShelf, 9000.0, -2.0, 0.707}}));

    EXPECT_DOUBLE_EQ(Parser::parse("Filter 1: ON PK Fc 100 Hz Gain 1 dB", "n").preampDB, 0.0);
}

TEST(HeadphoneProfileParser, BadLinesAndEmptyProfilesAreErrorsAndNumbersSplitOnAllElse) {
    EXPECT_STREQ(parseError("Preamp: -1 dB\nFilter 1: ON XX Fc 100 Hz").what(),
                 "cannot parse line: Filter 1: ON XX Fc 100 Hz");
    const auto oneNumber =
        parseError("Filter 1: ON PK Fc 105 Hz Gain -3 dB Q 1\n  Filter 2: ON PK Fc 100 Hz\n");
    EXPECT_EQ(oneNumber.kind(), Parser::ParseError::Kind::badLine);
    EXPECT_EQ(oneNumber.line(), "Filter 2: ON PK Fc 100 Hz");

    for (const std::string text :
         {"", "# only a comment\n# and another", "Filter 2: OFF None Fc 0 Hz Gain 0 dB Q 0"}) {
        const auto e = parseError(text);
        EXPECT_EQ(e.kind(), Parser::ParseError::Kind::empty);
        EXPECT_STREQ(e.what(), "no filters found in profile");
    }

    // Numbers split on everything but digits, the point and a leading minus.
    EXPECT_EQ(Parser::numbers("Fc 105 Hz Gain -3.2 dB Q 0.71"), (std::vector<double>{105.0, -3.2, 0.71}));
    EXPECT_EQ(Parser::numbers("1-2"), (std::vector<double>{1.0, 2.0}));
    EXPECT_EQ(Parser::numbers("- 1.2.3 . -.5 x7"), (std::vector<double>{-0.5, 7.0}));
}
