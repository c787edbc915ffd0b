// A small PipeWire application for the platform tests: plays a stereo sine until it is killed,
// with the application properties it is given. Several frequencies joined by '+' play together,
// each at the level. "click:C" plays instead one sample at the level on channel C only (0 left, 1
// right) wherever the graph's clock passes a multiple of 4,800 frames, silence elsewhere: two such
// clients on the two channels of one device click at once, however their streams were moved or
// restarted, so a recording of its monitor shows how much later one path delivers than the other.
//   platform_tone_client <application.id> <application.name> <frequency Hz[+Hz...]|click:C> [level 0..1]
// From the environment: TONAVI_TONE_ROLE, the stream's media.role (default "Music"); TONAVI_TONE_WINDOW,
// the title of an X11 window this process opens on $DISPLAY before it plays (exit 69 without one),
// so that one process both owns a window and plays, as a desktop application does.

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

#include <memory>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include "TestWindow.hpp"

namespace {
pw_main_loop* loop = nullptr;
pw_stream* stream = nullptr;
std::vector<double> frequencies, phases;
double level = 0.5;
int clickChannel = -1; // a click train on this channel instead of tones
std::uint64_t frame = 0;
constexpr std::uint64_t clickPeriod = 4800;

void process(void*) {
    pw_buffer* b = pw_stream_dequeue_buffer(stream);
    if (!b)
        return;
    spa_data& d = b->buffer->datas[0];
    auto* samples = static_cast<float*>(d.data);
    std::uint32_t frames = d.maxsize / (2 * sizeof(float));
    if (b->requested)
        frames = std::min<std::uint32_t>(frames, static_cast<std::uint32_t>(b->requested));
    if (clickChannel >= 0) {
        pw_time time{};
        pw_stream_get_time_n(stream, &time, sizeof time);
        frame = time.ticks;
    }
    for (std::uint32_t i = 0; samples && i < frames; ++i, ++frame) {
        if (clickChannel >= 0) {
            samples[2 * i] = samples[2 * i + 1] = 0.0f;
            if (frame % clickPeriod == 0)
                samples[2 * i + clickChannel] = static_cast<float>(level);
            continue;
        }
        double v = 0;
        for (std::size_t k = 0; k < frequencies.size(); ++k) {
            v += level * std::sin(phases[k]);
            phases[k] = std::fmod(phases[k] + 2.0 * std::numbers::pi * frequencies[k] / 48000.0,
                                  2.0 * std::numbers::pi);
        }
        samples[2 * i] = samples[2 * i + 1] = static_cast<float>(v);
    }
    *d.chunk = {0, samples ? frames * 8 : 0, 8, 0}; // stereo floats: 8 bytes a frame
    pw_stream_queue_buffer(stream, b);
}
} // namespace

int main(int argc, char** argv) {
    if (argc < 4)
        return 64;
    pw_init(&argc, &argv);
    if (std::string(argv[3]).starts_with("click:"))
        clickChannel = argv[3][6] == '1' ? 1 : 0;
    for (const char* f = clickChannel >= 0 ? "" : argv[3]; *f;) {
        char* end = nullptr;
        frequencies.push_back(std::strtod(f, &end));
        if (end == f)
            return 64;
        f = *end == '+' ? end + 1 : end;
    }
    phases.assign(frequencies.size(), 0.0);
    level = argc > 4 ? std::atof(argv[4]) : 0.5;
    loop = pw_main_loop_new(nullptr);
    for (int signal : {SIGTERM, SIGINT})
        std::signal(signal, [](int) { pw_main_loop_quit(loop); });
    std::unique_ptr<tonavi::test::TestWindow> window;
    if (const char* title = std::getenv("TONAVI_TONE_WINDOW"); title && *title) {
        window = std::make_unique<tonavi::test::TestWindow>();
        if (!window->open(title))
            return 69;
        pw_loop_add_io(
            pw_main_loop_get_loop(loop), window->fd(), SPA_IO_IN, false,
            [](void* data, int, std::uint32_t) {
                if (!static_cast<tonavi::test::TestWindow*>(data)->drain())
                    pw_main_loop_quit(loop); // the display went away, and the application with it
            },
            window.get());
    }
    const char* role = std::getenv("TONAVI_TONE_ROLE");
    pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
    pw_core* core = pw_context_connect(
        context, pw_properties_new(PW_KEY_APP_ID, argv[1], PW_KEY_APP_NAME, argv[2], nullptr), 0);
    if (!core)
        return 69;
    pw_properties* props =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
                          role && *role ? role : "Music", PW_KEY_APP_ID, argv[1], PW_KEY_APP_NAME, argv[2], nullptr);
    stream = pw_stream_new(core, argv[2], props);
    static pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS, events.process = process;
    spa_hook hook{};
    pw_stream_add_listener(stream, &hook, &events, nullptr);
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
    spa_audio_info_raw info{SPA_AUDIO_FORMAT_F32, 0, 48000, 2, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}};
    const spa_pod* params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    pw_stream_connect(stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                   PW_STREAM_FLAG_RT_PROCESS),
                      params, 1);
    pw_main_loop_run(loop);
    pw_stream_destroy(stream); // the rest goes with the process
}
