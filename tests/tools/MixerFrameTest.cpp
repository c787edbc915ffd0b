#include "tools/tonavictl/MixerFrame.hpp"

#include "core/wire/TonaviStatus.hpp"
#include "tests/tools/SampleStatus.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

using namespace tonavi;
using tonavi::testing::sampleStatus;

namespace {

// The sample's three applications plus a soloed one, and the solo that makes it so.
TonaviStatus mixerStatus() {
    TonaviStatus s = sampleStatus();
    s.outputVolume = 0.5;
    s.sampleRate = 48000;
    AppLiveStatus podcasts{.id = "fm.overcast", .displayName = "Overcast Podcasts", .volume = 0.73};
    podcasts.engaged = podcasts.isPlayingAudio = true;
    podcasts.level = 0.19f;
    podcasts.soloed = true;
    s.apps.push_back(podcasts);
    s.soloAppIDs = std::vector<std::string>{"fm.overcast"};
    return s;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& line : lines)
        out += line + "\n";
    return out;
}

MixerFrame::View view(int width, int height) {
    MixerFrame::View v;
    v.width = width;
    v.height = height;
    v.eqPresets = {{"com.apple.Music", "Bass Booster"}};
    v.locks = GlobalLocks{};
    v.locks->volume = true;
    return v;
}

TEST(MixerFrameTest, GoldenFrames) {
    const TonaviStatus status = mixerStatus();
    MixerFrame::View narrow = view(80, 24);
    narrow.selected = 1;
    MixerFrame::View devices = view(80, 12);
    devices.page = MixerFrame::Page::devices;
    MixerFrame::View chooser = view(80, 12);
    chooser.overlay = MixerFrame::Overlay::chooser;
    chooser.chooserTitle = "Output for Music";
    chooser.choices = {"The system output", "MacBook Pro Speakers", "Desk cans", "Living"};
    chooser.choice = 2;
    MixerFrame::View unreachable = view(80, 10);
    unreachable.connected = false;
    unreachable.notice = "The Tonavi service cannot be reached; retrying (connection refused)";

    // Each frame as the terminal shows it: the selected row marked, a muted application (M), a soloed one
    // (S and SOLO in the title), one with a control issue (! and its text on the line above the keys).
    const std::tuple<const char*, const TonaviStatus*, MixerFrame::View, std::string> cases[] = {
        {"80x24", &status, narrow,
         R"(Tonavi mixer  SOLO                                      [Applications]  Devices
 Output: MacBook Pro Speakers  [#####-----]  50%
  APPLICATION   VOLUME            LEVEL      M S  PATH   OUTPUT     EQ         !
  Music         [#####-----]  50% ||||......      tapped Desk cans  Bass Boos~
> Safari        [##########] 100% |||||||||| M    tapped default    -          !
  Mäil          [##########] 100% ..........      locked default    -
  Overcast Pod~ [#######---]  73% |.........   S  tapped default    -















 Safari (com.apple.Safari): Audio control could not attach. Sound is on the dir~
<-> 5%  ,. 1%  m mute  s solo  o output  e EQ  r reset  S stage  ? keys  q quit)"},
        {"devices", &status, devices,
         R"(Tonavi mixer  SOLO                                       Applications  [Devices]
 Output: MacBook Pro Speakers  [#####-----]  50%
  DEVICE           TRANSPORT DEFAULT VOLUME            M  HIDDEN LOCKS
> MacBook Pro Spe~ builtin   out     [#####-----]  50%           vol
  Desk cans        usb       -       no volume         M  hidden -
  MacBook Pro Mic~ builtin   in      no volume                   -
  Living           aggregate -       no volume                   -




up/down select  left/right 5%  ,/. 1%  m mute  Tab applications  ? help  q quit)"},
        {"chooser", &status, chooser,
         R"(Tonavi mixer  SOLO                                      [Applications]  Devices
 Output: MacBook Pro Speakers  [#####-----]  50%
         +------------------------------------------------------------+
         | Output for Music                                           |
         |------------------------------------------------------------|
         |   The system output                                        |
         |   MacBook Pro Speakers                                     |
         | > Desk cans                                                |
         |   Living                                                   |
         +------------------------------------------------------------+
 Music (com.apple.Music), boost x2
<-> 5%  ,. 1%  m mute  s solo  o output  e EQ  r reset  S stage  ? keys  q quit)"},
        {"unreachable", nullptr, unreachable,
         R"(Tonavi mixer  NOT CONNECTED                             [Applications]  Devices
 Output: -






 The Tonavi service cannot be reached; retrying (connection refused)
<-> 5%  ,. 1%  m mute  s solo  o output  e EQ  r reset  S stage  ? keys  q quit)"},
    };
    for (const auto& [name, shown, v, expected] : cases) {
        const auto lines = MixerFrame::render(shown, v);
        EXPECT_EQ(lines.size(), static_cast<std::size_t>(v.height)) << name;
        EXPECT_EQ(joined(lines), expected + "\n") << name;
    }
    // Wider, the three name columns share what is beyond 80 columns, so nothing is cut, and the keys
    // line spells its keys out.
    const auto wide = MixerFrame::render(&status, view(120, 12));
    EXPECT_EQ(wide[2], "  APPLICATION                VOLUME            LEVEL      M S  PATH   OUTPUT                  "
                       "EQ                       !");
    EXPECT_TRUE(wide[3].ends_with("tapped Desk cans               Bass Booster")) << wide[3];
    EXPECT_EQ(wide[6].substr(0, 47), "  Overcast Podcasts          [#######---]  73% ");
    EXPECT_EQ(wide[11].substr(0, 29), "up/down select  left/right 5%");
}

// A long list scrolls with the selection and says which rows it shows; no line is wider than the
// terminal; a terminal too small for the frame is told so.
TEST(MixerFrameTest, ScrollsWithTheSelectionAndFitsTheTerminal) {
    TonaviStatus status;
    for (int i = 1; i <= 30; ++i)
        status.apps.push_back(
            AppLiveStatus{.id = "app" + std::to_string(i), .displayName = "App" + std::to_string(i)});
    const std::tuple<int, int, std::size_t, std::string, std::string> cases[] = {
        {80, 10, 0, "> App1 ", "1-5 of 30"},
        {80, 10, 17, "> App18 ", "14-18 of 30"},
        {80, 10, 29, "> App30 ", "26-30 of 30"},
        {64, 40, 12, "> App13 ", "of 30"},
    };
    for (const auto& [width, height, selected, row, range] : cases) {
        MixerFrame::View v = view(width, height);
        v.selected = selected;
        const auto lines = MixerFrame::render(&status, v);
        const std::string frame = joined(lines);
        EXPECT_NE(frame.find("\n" + row), std::string::npos) << frame;
        EXPECT_EQ(lines[2].find(range) != std::string::npos, height < 35) << lines[2];
        for (const auto& line : lines)
            EXPECT_LE(line.size(), static_cast<std::size_t>(width)) << line;
    }
    EXPECT_EQ(MixerFrame::render(&status, view(40, 24))[0], "Too small for the mixer: 60x10 at least");
}

} // namespace
