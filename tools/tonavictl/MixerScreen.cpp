#include "tools/tonavictl/MixerScreen.hpp"

#include "audio/chain/ChainSettingsJSON.hpp"
#include "audio/effects/EQPresets.hpp"
#include "audio/effects/EffectSettingsJSON.hpp"
#include "base/Dispatch.hpp"
#include "base/Encoding.hpp"
#include "core/wire/Diagnostics.hpp"
#include "core/wire/MixerCommandDispatcher.hpp"
#include "core/wire/TonaviChannel.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "core/wire/TonaviStatus.hpp"
#include "tools/tonavictl/MixerFrame.hpp"

#include <curses.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tonavi {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Four statuses a second keep meters alive without weighing on the service; the configuration (EQ
// presets, locks) changes only on request, so it is read every eighth poll and after such a request.
constexpr auto pollInterval = 250ms;
constexpr int pollsPerConfigurationRead = 8;
constexpr double requestTimeoutSeconds = 5;
// A position the user has just set is shown until the service reports it, at most this long after the
// last key (or longer while its request is still on its way).
constexpr auto localHold = 1500ms;
// How long a refused request's message stays on the screen.
constexpr auto noticeHold = 5s;
// The main loop wakes this often to pick up a new status or a signal.
constexpr int inputTimeoutMS = 100;

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void onStopSignal(int s) {
    stopSignal = s;
}

// The status and the configuration's facts as the poller last saw them; every field under `lock`.
struct Shared {
    std::mutex lock;
    std::optional<TonaviStatus> status;
    std::optional<TonaviConfig> config;
    std::string connectionError; // empty while the service answers
    std::string notice;          // the newest refused request
    Clock::time_point noticeAt{};
    std::uint64_t generation = 0; // changes with anything above
    bool configWanted = true;
};

void fetchStatus(Shared& shared, bool withConfiguration) {
    std::optional<TonaviStatus> status;
    std::optional<TonaviConfig> config;
    std::string error;
    try {
        TonaviReply reply = TonaviChannel::send({TonaviRequest::Status{}}, requestTimeoutSeconds);
        if (!reply.ok || !reply.status)
            error = reply.message.empty() ? "the service gave no status" : reply.message;
        else
            status = std::move(reply.status);
        if (status && withConfiguration) {
            TonaviReply dump = TonaviChannel::send({TonaviRequest::Diagnostics{}}, requestTimeoutSeconds);
            if (dump.ok && dump.payload)
                config = TonaviPayload::decodeDiagnostics(*dump.payload).config;
        }
    } catch (const std::exception& e) {
        error = e.what();
    }
    std::lock_guard guard(shared.lock);
    // Most polls bring nothing new; the screen is drawn again only for what changed.
    const bool changed = (status && status != shared.status) || (config && config != shared.config) ||
                         error != shared.connectionError;
    if (status)
        shared.status = std::move(status);
    if (config) {
        shared.config = std::move(config);
        shared.configWanted = false;
    }
    shared.connectionError = error;
    if (changed)
        ++shared.generation;
}

std::map<std::string, std::string> eqPresetsOf(const TonaviConfig& config) {
    std::map<std::string, std::string> presets;
    for (const auto& app : config.apps)
        for (const auto& slot : app.chain.slots)
            if (slot.kind == kavore::EffectKind::eq10 && !slot.bypassed) {
                presets[app.id] = slot.nickname.empty() ? "EQ" : slot.nickname;
                break;
            }
    return presets;
}

// The application's chain with its EQ replaced by a preset, or removed for "Off"; other effects and the
// boost stay as they are.
kavore::ChainSettings chainWithPreset(kavore::ChainSettings chain, const std::string& presetName) {
    std::erase_if(chain.slots, [](const auto& slot) { return slot.kind == kavore::EffectKind::eq10; });
    if (const auto preset = kavore::EQPresets::named(presetName)) {
        kavore::EffectSlot slot;
        slot.id = makeUUID();
        slot.kind = kavore::EffectKind::eq10;
        slot.nickname = preset->name;
        slot.settingsJSON = kavore::settingsJSONBytes(kavore::toJSON(preset->settings));
        chain.slots.insert(chain.slots.begin(), std::move(slot));
    }
    return chain;
}

std::pair<int, int> terminalSize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0)
        return {size.ws_col, size.ws_row};
    const char* columns = std::getenv("COLUMNS");
    const char* lines = std::getenv("LINES");
    const int w = columns ? std::atoi(columns) : 0;
    const int h = lines ? std::atoi(lines) : 0;
    return {w > 0 ? w : 80, h > 0 ? h : 24};
}

// A value set by a key and not yet seen in a status.
template <class T> struct Held {
    T value{};
    Clock::time_point at{};
};

class Session {
  public:
    Session()
        : pollTimer_(
              pollQueue_, 0ms, pollInterval, [this] { poll(); }, 20ms) {
        pollTimer_.resume();
    }
    ~Session() { pollTimer_.cancel(); }

    // One pass of the main loop: a key (ERR for none). False once the user quits.
    bool handle(int key);
    void draw();
    // Lets the last commands reach the service before the process ends.
    void flush() { dispatcher_.waitUntilIdle(3s); }

  private:
    void poll() {
        bool withConfiguration = false;
        {
            std::lock_guard guard(shared_.lock);
            withConfiguration = shared_.configWanted || ++polls_ % pollsPerConfigurationRead == 0;
        }
        fetchStatus(shared_, withConfiguration);
    }

    // Sends through the dispatcher; the reply's status (the state after the request) is shown at once.
    void send(std::string key, TonaviRequest request, bool changesConfiguration = false) {
        dispatcher_.submit(std::move(key), [this, request = std::move(request), changesConfiguration] {
            std::string notice;
            std::optional<TonaviStatus> after;
            try {
                TonaviReply reply = TonaviChannel::send(request, requestTimeoutSeconds);
                if (!reply.ok)
                    notice = reply.message.empty() ? "the service refused the change" : reply.message;
                else
                    after = std::move(reply.status);
            } catch (const std::exception& e) {
                notice = std::string("the change did not reach the service: ") + e.what();
            }
            std::lock_guard guard(shared_.lock);
            if (after)
                shared_.status = std::move(after);
            if (!notice.empty()) {
                shared_.notice = notice;
                shared_.noticeAt = Clock::now();
            }
            shared_.configWanted = shared_.configWanted || changesConfiguration;
            ++shared_.generation;
        });
    }

    bool busy() { return !dispatcher_.waitUntilIdle(0ms); }
    template <class T> std::optional<T> held(std::map<std::string, Held<T>>& values, const std::string& id) {
        const auto it = values.find(id);
        if (it == values.end())
            return std::nullopt;
        if (Clock::now() - it->second.at > localHold && !busy()) {
            values.erase(it);
            return std::nullopt;
        }
        return it->second.value;
    }

    // The status as the user should see it: the newest one with the positions just set laid over it.
    std::optional<TonaviStatus> shownStatus(std::string& notice) {
        std::optional<TonaviStatus> status;
        {
            std::lock_guard guard(shared_.lock);
            status = shared_.status;
            view_.connected = shared_.connectionError.empty();
            if (!shared_.connectionError.empty())
                notice = "The Tonavi service cannot be reached; retrying (" + shared_.connectionError + ")";
            else if (!shared_.notice.empty() && Clock::now() - shared_.noticeAt < noticeHold)
                notice = shared_.notice;
            if (shared_.config) {
                view_.eqPresets = eqPresetsOf(*shared_.config);
                view_.locks = shared_.config->locks;
                chains_.clear();
                for (const auto& app : shared_.config->apps)
                    chains_[app.id] = app.chain;
            }
            seen_ = shared_.generation;
        }
        if (status) {
            for (auto& app : status->apps) {
                if (auto v = held(appVolumes_, app.id))
                    app.volume = *v;
                if (auto m = held(appMutes_, app.id))
                    app.muted = *m;
            }
            for (auto& device : status->devices)
                if (auto v = held(deviceVolumes_, device.id))
                    device.volume = *v;
        }
        return status;
    }

    std::size_t rowCount(const TonaviStatus& status) const {
        return view_.page == MixerFrame::Page::applications ? status.apps.size() : status.devices.size();
    }
    std::string rowID(const TonaviStatus& status, std::size_t row) const {
        if (view_.page == MixerFrame::Page::applications)
            return row < status.apps.size() ? status.apps[row].id : std::string();
        return row < status.devices.size() ? status.devices[row].id : std::string();
    }
    // The selected row follows its application or device when the list changes order.
    void locateSelection(const TonaviStatus& status) {
        const std::string& id = view_.page == MixerFrame::Page::applications ? selectedApp_ : selectedDevice_;
        for (std::size_t i = 0; i < rowCount(status); ++i)
            if (rowID(status, i) == id) {
                view_.selected = i;
                return;
            }
        view_.selected = std::min(view_.selected, rowCount(status) ? rowCount(status) - 1 : 0);
        (view_.page == MixerFrame::Page::applications ? selectedApp_ : selectedDevice_) =
            rowID(status, view_.selected);
    }

    void changeVolume(const TonaviStatus& status, int percentStep);
    enum class Choosing { output, preset, scene };
    void openChooser(const TonaviStatus& status, Choosing what);
    void choose(const TonaviStatus& status);

    Shared shared_;
    MixerFrame::View view_;
    std::uint64_t seen_ = 0;
    std::uint64_t drawn_ = ~std::uint64_t(0);
    int polls_ = 0; // on pollQueue_
    std::string selectedApp_;
    std::string selectedDevice_;
    std::map<std::string, Held<double>> appVolumes_;
    std::map<std::string, Held<bool>> appMutes_;
    std::map<std::string, Held<double>> deviceVolumes_;
    std::map<std::string, kavore::ChainSettings> chains_;
    Choosing choosing_ = Choosing::output;
    std::vector<std::string> choiceValues_; // device UIDs ("" for the system output), presets or scenes
    std::string choiceApp_;
    MixerCommandDispatcher dispatcher_;
    DispatchQueue pollQueue_{"tonavi.mixer-status"};
    DispatchTimer pollTimer_;
};

void Session::changeVolume(const TonaviStatus& status, int percentStep) {
    const std::string id = rowID(status, view_.selected);
    if (id.empty())
        return;
    const bool apps = view_.page == MixerFrame::Page::applications;
    double current = 0;
    if (apps)
        current = std::find_if(status.apps.begin(), status.apps.end(), [&](const auto& a) {
                      return a.id == id;
                  })->volume;
    else
        current = std::find_if(status.devices.begin(), status.devices.end(), [&](const auto& d) {
                      return d.id == id;
                  })->volume;
    // Whole percents, so that steps add up exactly however many keys arrive.
    const long percent = std::clamp(std::lround(current * 100.0) + percentStep, 0L, 100L);
    const double volume = static_cast<double>(percent) / 100.0;
    if (apps) {
        appVolumes_[id] = {volume, Clock::now()};
        send(id + "/volume", {TonaviRequest::SetAppVolume{id, volume}});
    } else {
        deviceVolumes_[id] = {volume, Clock::now()};
        send("device:" + id + "/volume", {TonaviRequest::SetDeviceVolume{id, volume}});
    }
}

void Session::openChooser(const TonaviStatus& status, Choosing what) {
    choosing_ = what;
    view_.choices.clear();
    choiceValues_.clear();
    view_.choice = 0;
    if (what == Choosing::scene) {
        // Asked when the list opens: scenes change only when someone saves or deletes one.
        std::vector<std::string> names;
        try {
            const TonaviReply reply = TonaviChannel::send({TonaviRequest::ListConfigs{}}, requestTimeoutSeconds);
            if (reply.ok && reply.payload)
                names = TonaviPayload::decodeNames(*reply.payload);
        } catch (const std::exception&) {
            return; // the status poll says when the service is gone
        }
        view_.chooserTitle = names.empty() ? "No saved scenes  (tonavictl config save NAME; Esc close)"
                                           : "Load a scene  (Enter load, Esc close)";
        view_.choices = names;
        choiceValues_ = std::move(names);
        view_.overlay = MixerFrame::Overlay::chooser;
        return;
    }
    choiceApp_ = rowID(status, view_.selected);
    if (choiceApp_.empty())
        return;
    const auto& app = *std::find_if(status.apps.begin(), status.apps.end(),
                                    [&](const auto& a) { return a.id == choiceApp_; });
    if (what == Choosing::output) {
        view_.chooserTitle = "Output for " + app.displayName + "  (Enter choose, Esc close)";
        view_.choices.push_back("The system output");
        choiceValues_.push_back("");
        for (const auto& d : status.devices) {
            if (!d.isOutput || d.hidden.value_or(false))
                continue;
            if (d.id == app.redirectUID)
                view_.choice = view_.choices.size();
            view_.choices.push_back(d.nickname.empty() ? d.name : d.nickname);
            choiceValues_.push_back(d.id);
        }
    } else {
        view_.chooserTitle = "EQ preset for " + app.displayName + "  (Enter choose, Esc close)";
        const auto current = view_.eqPresets.find(app.id);
        view_.choices.push_back("Off");
        choiceValues_.push_back("off");
        for (const auto& preset : kavore::EQPresets::all()) {
            if (current != view_.eqPresets.end() && current->second == preset.name)
                view_.choice = view_.choices.size();
            view_.choices.push_back(preset.name);
            choiceValues_.push_back(preset.name);
        }
    }
    view_.overlay = MixerFrame::Overlay::chooser;
}

void Session::choose(const TonaviStatus& status) {
    view_.overlay = MixerFrame::Overlay::none;
    if (view_.choice >= choiceValues_.size())
        return;
    const std::string& value = choiceValues_[view_.choice];
    if (choosing_ == Choosing::scene) {
        send("scene", {TonaviRequest::LoadConfig{value}}, true);
        return;
    }
    if (choosing_ == Choosing::output) {
        send(choiceApp_ + "/output", {TonaviRequest::SetAppRedirect{choiceApp_, value}});
        return;
    }
    // Without the configuration the chain is not known; the boost at least is kept from the status.
    kavore::ChainSettings chain;
    if (const auto known = chains_.find(choiceApp_); known != chains_.end()) {
        chain = known->second;
    } else {
        const auto app = std::find_if(status.apps.begin(), status.apps.end(),
                                      [&](const auto& a) { return a.id == choiceApp_; });
        if (app != status.apps.end())
            chain.overdrive = kavore::OverdriveSettings(app->boost);
    }
    send(choiceApp_ + "/chain",
         {TonaviRequest::SetAppChain{choiceApp_, chainWithPreset(std::move(chain), value)}}, true);
}

bool Session::handle(int key) {
    std::string notice;
    auto status = shownStatus(notice);
    if (key == ERR)
        return true;
    if (key == KEY_RESIZE) {
        drawn_ = ~std::uint64_t(0);
        return true;
    }
    if (view_.overlay == MixerFrame::Overlay::help) {
        view_.overlay = MixerFrame::Overlay::none;
        return key != 'q';
    }
    if (view_.overlay == MixerFrame::Overlay::chooser) {
        if (key == KEY_UP && view_.choice > 0)
            --view_.choice;
        else if (key == KEY_DOWN && view_.choice + 1 < view_.choices.size())
            ++view_.choice;
        else if ((key == '\n' || key == '\r' || key == KEY_ENTER) && status)
            choose(*status);
        else if (key == 27 || key == 'q')
            view_.overlay = MixerFrame::Overlay::none;
        return true;
    }
    if (key == 'q')
        return false;
    if (key == '?') {
        view_.overlay = MixerFrame::Overlay::help;
        return true;
    }
    if (key == '\t') {
        view_.page = view_.page == MixerFrame::Page::applications ? MixerFrame::Page::devices
                                                                  : MixerFrame::Page::applications;
        view_.selected = 0;
        if (status)
            locateSelection(*status);
        return true;
    }
    if (!status)
        return true;
    locateSelection(*status);
    const bool apps = view_.page == MixerFrame::Page::applications;
    const std::string id = rowID(*status, view_.selected);
    auto select = [&](std::size_t row) {
        view_.selected = row;
        (apps ? selectedApp_ : selectedDevice_) = rowID(*status, row);
    };
    switch (key) {
    case KEY_UP:
        if (view_.selected > 0)
            select(view_.selected - 1);
        break;
    case KEY_DOWN:
        if (view_.selected + 1 < rowCount(*status))
            select(view_.selected + 1);
        break;
    case KEY_LEFT:
    case KEY_RIGHT:
        changeVolume(*status, key == KEY_RIGHT ? 5 : -5);
        break;
    case KEY_SLEFT:
    case KEY_SRIGHT:
    case ',':
    case '.':
        changeVolume(*status, key == KEY_SRIGHT || key == '.' ? 1 : -1);
        break;
    case 'm': {
        if (id.empty())
            break;
        if (apps) {
            const auto& app = status->apps[view_.selected];
            appMutes_[id] = {!app.muted, Clock::now()};
            send(id + "/mute", {TonaviRequest::SetAppMuted{id, !app.muted}});
        } else {
            const auto& device = status->devices[view_.selected];
            send("device:" + id + "/mute", {TonaviRequest::SetDeviceMuted{id, !device.muted}});
        }
        break;
    }
    case 's':
        if (apps && !id.empty())
            send(id + "/solo",
                 {TonaviRequest::SetAppSolo{id, !status->apps[view_.selected].soloed.value_or(false)}});
        break;
    case 'r':
        if (apps && !id.empty()) {
            appVolumes_.erase(id);
            appMutes_.erase(id);
            send(id + "/reset", {TonaviRequest::ResetApp{id}}, true);
        }
        break;
    case 'S':
        send("stage", {TonaviRequest::StageMode{!status->stageMode}});
        break;
    case 'o':
    case 'e':
        if (apps)
            openChooser(*status, key == 'o' ? Choosing::output : Choosing::preset);
        break;
    case 'c':
        openChooser(*status, Choosing::scene);
        break;
    default:
        break;
    }
    drawn_ = ~std::uint64_t(0);
    return true;
}

void Session::draw() {
    std::string notice;
    auto status = shownStatus(notice);
    int height = 0;
    int width = 0;
    getmaxyx(stdscr, height, width);
    if (status)
        locateSelection(*status);
    // Positions set by keys lapse without a new status, so the frame is drawn again while any is held.
    const bool holding = !appVolumes_.empty() || !appMutes_.empty() || !deviceVolumes_.empty();
    if (seen_ == drawn_ && !holding && width == view_.width && height == view_.height &&
        notice == view_.notice)
        return;
    drawn_ = seen_;
    view_.width = width;
    view_.height = height;
    view_.notice = notice;
    const auto lines = MixerFrame::render(status ? &*status : nullptr, view_);
    // erase and refresh let ncurses send only what changed: no flicker, as clear() would cause.
    erase();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const bool selected = lines[i].starts_with("> ");
        if (selected)
            attron(A_REVERSE);
        mvaddstr(static_cast<int>(i), 0, lines[i].c_str());
        if (selected)
            attroff(A_REVERSE);
    }
    refresh();
}

} // namespace

int MixerScreen::run() {
    if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)) {
        std::fputs("tonavictl: mixer needs a terminal; `tonavictl mixer --once` prints one frame\n", stderr);
        return 64;
    }
    std::setlocale(LC_ALL, "");
    // Installed before initscr, so that ncurses leaves these signals to us: each ends the loop, which
    // restores the terminal before the process ends.
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (int s : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(s, &action, nullptr);

    initscr();
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    set_escdelay(25);
    timeout(inputTimeoutMS);
    int exitStatus = 0;
    {
        Session session;
        session.draw();
        bool running = true;
        while (running) {
            // Every key already typed is handled before the next frame: a held key's repeats then cost
            // one frame, and their commands coalesce while the first one is on its way.
            for (int key = getch(); running; key = getch()) {
                if (stopSignal != 0) {
                    exitStatus = 128 + stopSignal;
                    running = false;
                } else {
                    running = session.handle(key);
                }
                if (key == ERR)
                    break;
                timeout(0);
            }
            timeout(inputTimeoutMS);
            if (running)
                session.draw();
        }
        endwin();
        session.flush();
    }
    return exitStatus;
}

int MixerScreen::printOnce() {
    Shared shared;
    fetchStatus(shared, true);
    if (!shared.status) {
        std::fprintf(stderr, "tonavictl: cannot reach the service: %s\n", shared.connectionError.c_str());
        return 2;
    }
    MixerFrame::View view;
    std::tie(view.width, view.height) = terminalSize();
    if (shared.config) {
        view.eqPresets = eqPresetsOf(*shared.config);
        view.locks = shared.config->locks;
    }
    for (const auto& line : MixerFrame::render(&*shared.status, view))
        std::printf("%s\n", line.c_str());
    return 0;
}

} // namespace tonavi
