// A small PipeWire application for the platform tests: plays a stereo sine until it is killed,
// with the application properties it is given.
//   platform_tone_client <application.id> <application.name> <frequency Hz> [level 0..1] [target node]

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <numbers>
#include <string>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

namespace {
struct Tone {
    pw_main_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    double frequency = 440;
    double level = 0.5;
    double phase = 0;
};

void process(void* data) {
    auto& tone = *static_cast<Tone*>(data);
    pw_buffer* b = pw_stream_dequeue_buffer(tone.stream);
    if (!b)
        return;
    spa_data& d = b->buffer->datas[0];
    auto* samples = static_cast<float*>(d.data);
    if (!samples)
        return;
    std::uint32_t frames = d.maxsize / (2 * sizeof(float));
    if (b->requested)
        frames = std::min<std::uint32_t>(frames, static_cast<std::uint32_t>(b->requested));
    const double step = 2.0 * std::numbers::pi * tone.frequency / 48000.0;
    for (std::uint32_t i = 0; i < frames; ++i) {
        const float v = static_cast<float>(tone.level * std::sin(tone.phase));
        samples[2 * i] = v;
        samples[2 * i + 1] = v;
        tone.phase = std::fmod(tone.phase + step, 2.0 * std::numbers::pi);
    }
    d.chunk->offset = 0;
    d.chunk->stride = 2 * sizeof(float);
    d.chunk->size = frames * 2 * sizeof(float);
    pw_stream_queue_buffer(tone.stream, b);
}

Tone* running = nullptr;
void quit(int) {
    if (running)
        pw_main_loop_quit(running->loop);
}
} // namespace

int main(int argc, char** argv) {
    if (argc < 4)
        return 64;
    pw_init(&argc, &argv);
    Tone tone;
    tone.frequency = std::atof(argv[3]);
    tone.level = argc > 4 ? std::atof(argv[4]) : 0.5;
    tone.loop = pw_main_loop_new(nullptr);
    running = &tone;
    std::signal(SIGTERM, quit);
    std::signal(SIGINT, quit);
    pw_context* context = pw_context_new(pw_main_loop_get_loop(tone.loop), nullptr, 0);
    pw_core* core = pw_context_connect(
        context, pw_properties_new(PW_KEY_APP_ID, argv[1], PW_KEY_APP_NAME, argv[2], nullptr), 0);
    if (!core)
        return 69;
    pw_properties* props =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
                          "Music", PW_KEY_APP_ID, argv[1], PW_KEY_APP_NAME, argv[2], nullptr);
    if (argc > 5)
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, argv[5]);
    tone.stream = pw_stream_new(core, argv[2], props);
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.process = process;
        return e;
    }();
    spa_hook hook{};
    pw_stream_add_listener(tone.stream, &hook, &events, &tone);
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = 48000;
    info.channels = 2;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    pw_stream_connect(tone.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                   PW_STREAM_FLAG_RT_PROCESS),
                      params, 1);
    pw_main_loop_run(tone.loop);
    pw_stream_destroy(tone.stream);
    pw_core_disconnect(core);
    pw_context_destroy(context);
    pw_main_loop_destroy(tone.loop);
    return 0;
}
