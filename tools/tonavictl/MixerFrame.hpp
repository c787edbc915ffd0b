#pragma once
// What `tonavictl mixer` shows, as lines of text: a pure function of a status and the mixer's own state
// (page, selected row, size, an open list), so that the screen can be checked without a terminal. The
// terminal side only puts these lines on the screen.

#include "core/config/GlobalLocks.hpp"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tonavi {

struct AppLiveStatus;
struct DeviceLiveStatus;
struct TonaviStatus;

class MixerFrame {
  public:
    enum class Page { applications, devices };
    // What covers the list: nothing, the keys, or a list to choose from (an output, an EQ preset).
    enum class Overlay { none, help, chooser };

    struct View {
        int width = 80;
        int height = 24;
        Page page = Page::applications;
        std::size_t selected = 0; // a row of the current page
        Overlay overlay = Overlay::none;
        std::string chooserTitle;
        std::vector<std::string> choices;
        std::size_t choice = 0;
        // The EQ preset of each application by bundle identifier, from the configuration; an
        // application without one is absent.
        std::map<std::string, std::string> eqPresets;
        // The global locks, from the configuration; absent until it has been read.
        std::optional<GlobalLocks> locks;
        // False while the service does not answer: the rows are the last it reported.
        bool connected = true;
        // A line for the user about the connection or a refused request; empty when all is well.
        std::string notice;
    };

    // The smallest terminal the frame is drawn in; below it, the frame says so and nothing else.
    static constexpr int minWidth = 60;
    static constexpr int minHeight = 10;

    // Exactly view.height lines, none wider than view.width columns, with no trailing blanks. A null
    // status draws the frame before any status arrived (the notice says why).
    static std::vector<std::string> render(const TonaviStatus* status, const View& view);

    // The rows of each page, in the order they are drawn.
    static std::vector<const AppLiveStatus*> applicationRows(const TonaviStatus& status);
    static std::vector<const DeviceLiveStatus*> deviceRows(const TonaviStatus& status);

    // Lines of the list area at this height: how many rows fit on a page.
    static std::size_t listHeight(int height);
};

} // namespace tonavi
