#include "tools/tonavictl/MixerFrame.hpp"

#include "core/wire/MixerPresentation.hpp"
#include "core/wire/TonaviStatus.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tonavi {

namespace {

// Width on a terminal, counting each UTF-8 sequence as one column.
std::size_t columns(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

// The first `count` columns of the text, never splitting a UTF-8 sequence.
std::string firstColumns(const std::string& text, std::size_t count) {
    std::size_t seen = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (seen == count)
                return text.substr(0, i);
            ++seen;
        }
    }
    return text;
}

// Exactly `width` columns: cut with a "~" where it is too long, padded with blanks where it is short.
std::string fit(const std::string& text, std::size_t width) {
    const std::size_t used = columns(text);
    if (used > width)
        return width == 0 ? std::string() : firstColumns(text, width - 1) + "~";
    return text + std::string(width - used, ' ');
}

std::string trimmed(std::string line) {
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}

// "[######----]" for 0...1, by the nearest tenth.
std::string volumeBar(double volume) {
    const double clamped = std::isfinite(volume) ? std::clamp(volume, 0.0, 1.0) : 0.0;
    const auto filled = static_cast<std::size_t>(std::lround(clamped * 10.0));
    std::string bar = "[----------]";
    std::fill_n(bar.begin() + 1, filled, '#');
    return bar;
}

std::string percent(double volume) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%3.0f%%", std::isfinite(volume) ? volume * 100.0 : 0.0);
    return buffer;
}

std::string meter(float level) {
    const auto lit = static_cast<std::size_t>(MixerPresentation::meterSegments(level));
    return std::string(lit, '|') + std::string(10 - lit, '.');
}

std::string deviceName(const TonaviStatus& status, const std::string& uid) {
    for (const auto& d : status.devices)
        if (d.id == uid)
            return d.nickname.empty() ? d.name : d.nickname;
    return uid;
}

// Left text, then right text flush with the right edge; the left one gives way when both do not fit.
std::string spread(const std::string& left, const std::string& right, std::size_t width) {
    const std::size_t rightColumns = std::min(columns(right), width);
    return fit(left, width - rightColumns) + fit(right, rightColumns);
}

// The first row shown so that the selected one is on the page.
std::size_t firstShown(std::size_t selected, std::size_t rows, std::size_t listRows) {
    if (rows <= listRows || selected < listRows)
        return 0;
    return std::min(selected - listRows + 1, rows - listRows);
}

// Widths of the application columns; whatever the terminal has beyond 80 columns goes to the three names.
struct AppColumns {
    std::size_t name = 13, output = 10, eq = 10;
    explicit AppColumns(std::size_t width) {
        const std::size_t extra = width > 80 ? width - 80 : 0;
        name += extra / 3;
        output += extra / 3;
        eq += extra - 2 * (extra / 3);
    }
};

const std::string applicationKeys =
    "up/down select  left/right 5%  ,/. 1%  m mute  s solo  o output  e EQ  r reset  S stage  "
    "Tab devices  ? help  q quit";
// At 80 columns: the rest is on the help page.
const std::string applicationKeysShort =
    "<-> 5%  ,. 1%  m mute  s solo  o output  e EQ  r reset  S stage  ? keys  q quit";
const char* const deviceKeys =
    "up/down select  left/right 5%  ,/. 1%  m mute  Tab applications  ? help  q quit";

const char* const helpLines[] = {
    "up, down          select a row",
    "left, right       volume down or up by 5%",
    "shift+left/right  volume down or up by 1% (or , and .)",
    "m                 mute or unmute",
    "s                 solo, or end the solo",
    "o                 choose the output",
    "e                 choose the EQ preset",
    "r                 reset: forget the application's settings",
    "S                 stage mode on or off",
    "c                 load a saved scene",
    "Tab               applications or devices",
    "Enter, Esc        in a list: choose, or close it",
    "q, Ctrl-C         quit",
};

// The lines of a framed box that covers the list area, centred across the width.
std::vector<std::string> box(const std::string& title, const std::vector<std::string>& items,
                             std::optional<std::size_t> selected, std::size_t width, std::size_t height) {
    const std::size_t inner = std::min<std::size_t>(width - 4, 60);
    const std::size_t indent = (width - inner - 2) / 2;
    const std::size_t itemRows = height > 4 ? height - 4 : 0;
    const std::size_t first = selected ? firstShown(*selected, items.size(), itemRows) : 0;
    std::vector<std::string> out;
    const std::string pad(indent, ' ');
    out.push_back(pad + "+" + std::string(inner, '-') + "+");
    out.push_back(pad + "|" + fit(" " + title, inner) + "|");
    out.push_back(pad + "|" + std::string(inner, '-') + "|");
    for (std::size_t i = first; i < items.size() && i < first + itemRows; ++i) {
        const bool isSelected = selected && *selected == i;
        out.push_back(pad + "|" + fit((isSelected ? " > " : "   ") + items[i], inner) + "|");
    }
    while (out.size() + 1 < height)
        out.push_back(pad + "|" + std::string(inner, ' ') + "|");
    out.push_back(pad + "+" + std::string(inner, '-') + "+");
    return out;
}

} // namespace

std::vector<const AppLiveStatus*> MixerFrame::applicationRows(const TonaviStatus& status) {
    std::vector<const AppLiveStatus*> rows;
    for (const auto& app : status.apps)
        rows.push_back(&app);
    return rows;
}

std::vector<const DeviceLiveStatus*> MixerFrame::deviceRows(const TonaviStatus& status) {
    std::vector<const DeviceLiveStatus*> rows;
    for (const auto& device : status.devices)
        rows.push_back(&device);
    return rows;
}

std::size_t MixerFrame::listHeight(int height) {
    return height > 5 ? static_cast<std::size_t>(height - 5) : 0;
}

std::vector<std::string> MixerFrame::render(const TonaviStatus* status, const View& view) {
    const int height = std::max(view.height, 1);
    std::vector<std::string> lines(static_cast<std::size_t>(height));
    const std::size_t width = static_cast<std::size_t>(std::max(view.width, 1));
    if (view.width < minWidth || view.height < minHeight) {
        lines[0] = trimmed(fit("Too small for the mixer: " + std::to_string(minWidth) + "x" +
                                   std::to_string(minHeight) + " at least",
                               width));
        return lines;
    }
    const bool apps = view.page == Page::applications;
    const std::size_t listRows = listHeight(height);

    // Title: the pages, and the states that change what every row means.
    std::string flags;
    if (!view.connected)
        flags += "  NOT CONNECTED";
    if (status && status->stageMode)
        flags += "  STAGE MODE";
    if (status && status->soloAppIDs && !status->soloAppIDs->empty())
        flags += "  SOLO";
    lines[0] =
        spread("Tonavi mixer" + flags, apps ? "[Applications]  Devices " : " Applications  [Devices]", width);

    std::size_t rowCount = 0;
    if (!status) {
        lines[1] = " Output: -";
    } else {
        const std::string output =
            status->defaultOutputUID.empty() ? "none" : deviceName(*status, status->defaultOutputUID);
        lines[1] = " Output: " + output + "  " + volumeBar(status->outputVolume) + " " +
                   percent(status->outputVolume) + (status->outputMuted ? "  muted" : "") +
                   (status->outputVolumeIsSoft ? "  (software)" : "");
        if (apps) {
            const AppColumns c(width);
            lines[2] = "  " + fit("APPLICATION", c.name) + " " + fit("VOLUME", 17) + " " + fit("LEVEL", 10) +
                       " M S  " + fit("PATH", 6) + " " + fit("OUTPUT", c.output) + " " + fit("EQ", c.eq) +
                       " !";
            const auto rows = applicationRows(*status);
            rowCount = rows.size();
            const std::size_t first = firstShown(view.selected, rows.size(), listRows);
            for (std::size_t i = first; i < rows.size() && i < first + listRows; ++i) {
                const AppLiveStatus& a = *rows[i];
                const auto eq = view.eqPresets.find(a.id);
                lines[3 + i - first] =
                    std::string(i == view.selected ? "> " : "  ") + fit(a.displayName, c.name) + " " +
                    volumeBar(a.volume) + " " + percent(a.volume) + " " + meter(a.level) + " " +
                    (a.muted ? "M" : " ") + " " + (a.soloed.value_or(false) ? "S" : " ") + "  " +
                    fit(a.engaged        ? "tapped"
                        : a.directLocked ? "locked"
                                         : "direct",
                        6) +
                    " " +
                    fit(a.redirectUID.empty() ? "default" : deviceName(*status, a.redirectUID), c.output) +
                    " " + fit(eq == view.eqPresets.end() ? "-" : eq->second, c.eq) + " " +
                    (a.controlIssue ? "!" : " ");
            }
            if (rows.empty())
                lines[3] = "  No applications yet: they appear once they play or are configured.";
        } else {
            const std::size_t nameWidth = 16 + (width > 80 ? (width - 80) / 2 : 0);
            lines[2] = "  " + fit("DEVICE", nameWidth) + " " + fit("TRANSPORT", 9) + " " + fit("DEFAULT", 7) +
                       " " + fit("VOLUME", 17) + " M  " + fit("HIDDEN", 6) + " LOCKS";
            const auto rows = deviceRows(*status);
            rowCount = rows.size();
            const std::size_t first = firstShown(view.selected, rows.size(), listRows);
            for (std::size_t i = first; i < rows.size() && i < first + listRows; ++i) {
                const DeviceLiveStatus& d = *rows[i];
                std::string marks = d.isDefaultOutput ? "out" : "";
                if (d.isDefaultInput)
                    marks += marks.empty() ? "in" : " in";
                std::string held;
                if (view.locks) {
                    if (d.isDefaultOutput && view.locks->volume)
                        held += "vol ";
                    if (d.isDefaultOutput && view.locks->mute)
                        held += "mute ";
                    if (view.locks->sampleRate)
                        held += "rate";
                }
                lines[3 + i - first] =
                    std::string(i == view.selected ? "> " : "  ") +
                    fit(d.nickname.empty() ? d.name : d.nickname, nameWidth) + " " +
                    fit(std::string(transportName(d.transport)), 9) + " " +
                    fit(marks.empty() ? "-" : marks, 7) + " " +
                    (d.hasVolume ? volumeBar(d.volume) + " " + percent(d.volume) : fit("no volume", 17)) +
                    " " + (d.muted ? "M" : " ") + "  " + fit(d.hidden.value_or(false) ? "hidden" : "", 6) +
                    " " + (view.locks ? (held.empty() ? "-" : trimmed(held)) : "?");
            }
            if (rows.empty())
                lines[3] = "  No devices yet.";
        }
        if (rowCount > listRows)
            lines[2] = spread(lines[2],
                              " " + std::to_string(firstShown(view.selected, rowCount, listRows) + 1) + "-" +
                                  std::to_string(std::min(
                                      rowCount, firstShown(view.selected, rowCount, listRows) + listRows)) +
                                  " of " + std::to_string(rowCount),
                              width);
    }

    // The line above the keys: what needs saying, else what the selected row holds beyond its columns.
    std::string detail = view.notice;
    if (detail.empty() && status && apps && view.selected < status->apps.size()) {
        const AppLiveStatus& a = *applicationRows(*status)[view.selected];
        detail = a.displayName + " (" + a.id + ")" + (a.isPlayingAudio ? ", playing" : "");
        if (a.boost > 1.0) {
            char boost[32];
            std::snprintf(boost, sizeof boost, ", boost x%g", a.boost);
            detail += boost;
        }
        if (a.controlIssue)
            detail += ": " + *a.controlIssue;
    }
    lines[static_cast<std::size_t>(height - 2)] = " " + detail;
    lines[static_cast<std::size_t>(height - 1)] = !apps                             ? deviceKeys
                                                  : width >= applicationKeys.size() ? applicationKeys
                                                                                    : applicationKeysShort;

    if (view.overlay != Overlay::none) {
        const bool help = view.overlay == Overlay::help;
        const auto covered =
            box(help ? "Keys" : view.chooserTitle,
                help ? std::vector<std::string>(std::begin(helpLines), std::end(helpLines)) : view.choices,
                help ? std::nullopt : std::optional<std::size_t>(view.choice), width, listRows + 1);
        for (std::size_t i = 0; i < covered.size(); ++i)
            lines[2 + i] = covered[i];
    }

    for (auto& line : lines)
        line = trimmed(fit(line, width));
    return lines;
}

} // namespace tonavi
