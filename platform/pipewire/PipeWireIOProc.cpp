#include "platform/pipewire/PipeWireIOProc.hpp"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <utility>

#include <pipewire/pipewire.h>

#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireFormat.hpp"
#include "platform/pipewire/PipeWireTap.hpp"

namespace tonavi {

namespace {
// The newest buffer a capture stream holds; older ones go straight back.
pw_buffer* newestBuffer(pw_stream* stream) {
    pw_buffer* newest = nullptr;
    while (pw_buffer* b = pw_stream_dequeue_buffer(stream)) {
        if (newest)
            pw_stream_queue_buffer(stream, newest);
        newest = b;
    }
    return newest;
}

std::uint64_t monotonicNanos() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}
} // namespace

PipeWireIOProc::PipeWireIOProc(PipeWireConnection& connection, AudioDeviceIOBlock block)
    : connection_(connection), block_(std::move(block)) {}

PipeWireIOProc::~PipeWireIOProc() {
    stop();
}

void PipeWireIOProc::process(void* data) {
    auto& self = *static_cast<PipeWireIOProc*>(data);
    pw_buffer* out = pw_stream_dequeue_buffer(self.stream_);
    if (!out)
        return;
    spa_data& d = out->buffer->datas[0];
    if (!d.data)
        return;
    const std::uint32_t stride = self.outputChannels_ * sizeof(float);
    std::uint32_t frames = std::min(d.maxsize / stride, self.maxFrames_);
    if (out->requested)
        frames = std::min<std::uint32_t>(frames, static_cast<std::uint32_t>(out->requested));

    for (std::size_t i = 0; i < self.taps_.size(); ++i) {
        auto& data = self.inputData_[i];
        const std::uint32_t channels = self.taps_[i]->channels();
        std::uint32_t copied = 0;
        const bool on = self.inputBuffers_[i].mData != nullptr;
        if (pw_stream* capture = self.taps_[i]->stream()) {
            // A stream switched off is still drained, so that its sink never backs up.
            if (pw_buffer* in = newestBuffer(capture)) {
                const spa_data& id = in->buffer->datas[0];
                if (on && id.data && id.chunk) {
                    const std::uint32_t offset = std::min(id.chunk->offset, id.maxsize);
                    const std::uint32_t bytes = std::min(id.chunk->size, id.maxsize - offset);
                    copied = std::min(frames, bytes / (channels * static_cast<std::uint32_t>(sizeof(float))));
                    std::memcpy(data.data(), static_cast<const std::uint8_t*>(id.data) + offset,
                                copied * channels * sizeof(float));
                }
                pw_stream_queue_buffer(capture, in);
            } else {
                self.lateInputs_.fetch_add(1, std::memory_order_relaxed);
            }
        }
        if (!on)
            continue;
        std::fill(data.begin() + copied * channels, data.begin() + frames * channels, 0.0f);
        self.inputBuffers_[i].mDataByteSize = frames * channels * sizeof(float);
    }

    std::memset(d.data, 0, frames * stride);
    self.outputBuffer_.mData = d.data;
    self.outputBuffer_.mDataByteSize = frames * stride;
    AudioBufferList input{std::span<AudioBuffer>(self.inputBuffers_)};
    AudioBufferList output{std::span<AudioBuffer>(&self.outputBuffer_, 1)};
    AudioTimeStamp time;
    time.mSampleTime = self.sampleTime_;
    time.mHostTime = monotonicNanos();
    time.mFlags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;
    self.block_(input, output, time);
    self.sampleTime_ += frames;

    d.chunk->offset = 0;
    d.chunk->stride = static_cast<std::int32_t>(stride);
    d.chunk->size = frames * stride;
    pw_stream_queue_buffer(self.stream_, out);
    self.cycles_.fetch_add(1, std::memory_order_relaxed);
}

bool PipeWireIOProc::start(const Target& target, const std::vector<PipeWireTap*>& taps,
                           const std::vector<std::uint32_t>& inputUsage, std::string& error) {
    if (stream_)
        return true;
    taps_ = taps;
    outputChannels_ = target.channels;
    // Room for the largest quantum the graph may pick, whatever was asked for.
    maxFrames_ = 8192;
    inputData_.clear();
    inputBuffers_.clear();
    for (auto* tap : taps_) {
        inputData_.emplace_back(static_cast<std::size_t>(maxFrames_) * tap->channels(), 0.0f);
        inputBuffers_.push_back(AudioBuffer{tap->channels(), 0, nullptr});
    }
    for (std::size_t i = 0; i < taps_.size(); ++i)
        if (i >= inputUsage.size() || inputUsage[i] != 0)
            inputBuffers_[i].mData = inputData_[i].data();
    outputBuffer_ = AudioBuffer{outputChannels_, 0, nullptr};
    sampleTime_ = 0;
    nodeName_ = target.group + ".io";

    bool ok = false;
    connection_.withCore([&](pw_core* core) {
        if (!core) {
            error = "no PipeWire server";
            return;
        }
        const std::string latency = std::to_string(target.frames) + "/" + std::to_string(target.rate);
        pw_properties* props = pw_properties_new(
            PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_NODE_NAME,
            nodeName_.c_str(), PW_KEY_NODE_DESCRIPTION, "Tonavi tap output", PW_KEY_NODE_GROUP,
            target.group.c_str(), PW_KEY_TARGET_OBJECT, target.nodeName.c_str(), PW_KEY_NODE_DONT_RECONNECT,
            "true", PW_KEY_NODE_LATENCY, latency.c_str(), "tonavi.tap", "true", nullptr);
        stream_ = pw_stream_new(core, nodeName_.c_str(), props);
        if (!stream_) {
            error = "the IO stream could not be made";
            return;
        }
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.process = &PipeWireIOProc::process;
            return e;
        }();
        hook_ = std::make_unique<spa_hook>();
        pw_stream_add_listener(stream_, hook_.get(), &events, this);
        std::uint8_t buffer[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* params[] = {buildFloatFormat(b, outputChannels_, target.rate)};
        // Triggered by the first tap's sink once the cycle's samples are in, never by the graph on
        // its own: see PipeWireTap.
        const int res = pw_stream_connect(stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                                       PW_STREAM_FLAG_MAP_BUFFERS |
                                                                       PW_STREAM_FLAG_RT_PROCESS |
                                                                       PW_STREAM_FLAG_TRIGGER),
                                          params, 1);
        if (res < 0) {
            error = "the IO stream could not connect";
            spa_hook_remove(hook_.get());
            hook_.reset();
            pw_stream_destroy(stream_);
            stream_ = nullptr;
            return;
        }
        for (std::size_t i = 0; i < taps_.size(); ++i)
            taps_[i]->setConsumer(i == 0 ? stream_ : nullptr, true);
        // A triggered graph iteration may never finish, and then nothing triggers the next one: the
        // tap's sink is not run again and the application is silent. Such a cycle must be triggered
        // again, which the check does a few times before it leaves the stall to the service's stale-IO
        // rebuild.
        pw_loop* loop = pw_thread_loop_get_loop(connection_.threadLoop());
        stallTimer_ = pw_loop_add_timer(loop, &PipeWireIOProc::checkForStall, this);
        if (stallTimer_) {
            timespec every{0, 100'000'000};
            pw_loop_update_timer(loop, stallTimer_, &every, &every, false);
        }
        ok = true;
    });
    return ok;
}

std::int64_t PipeWireIOProc::reportedLatencyFrames() {
    std::int64_t frames = -1;
    connection_.withCore([&](pw_core*) {
        if (!stream_)
            return;
        pw_time out{};
        pw_stream_get_time_n(stream_, &out, sizeof(out));
        frames = out.delay + static_cast<std::int64_t>(out.buffered) +
                 static_cast<std::int64_t>(out.queued / (outputChannels_ * sizeof(float)));
        if (!taps_.empty() && taps_.front()->stream()) {
            pw_time in{};
            pw_stream_get_time_n(taps_.front()->stream(), &in, sizeof(in));
            frames += in.delay + static_cast<std::int64_t>(in.buffered);
        }
    });
    return frames;
}

bool StallKick::check(std::uint64_t cycles) {
    const std::uint64_t ran = cycles - cyclesAtCheck_;
    cyclesAtCheck_ = cycles;
    const bool kicked = std::exchange(kickedLastCheck_, false);
    if (ran > (kicked ? 1u : 0u)) {
        idleChecks_ = kicks_ = 0;
        return false;
    }
    if (++idleChecks_ < quietChecks || kicks_ >= kicksBeforeGivingUp)
        return false;
    ++kicks_;
    kickedLastCheck_ = true;
    return true;
}

void PipeWireIOProc::checkForStall(void* data, std::uint64_t) {
    auto& self = *static_cast<PipeWireIOProc*>(data);
    if (self.stream_ && pw_stream_get_state(self.stream_, nullptr) == PW_STREAM_STATE_STREAMING &&
        self.stallKick_.check(self.cycles_.load(std::memory_order_relaxed)))
        pw_stream_trigger_process(self.stream_);
}

void PipeWireIOProc::stop() {
    connection_.withCore([this](pw_core*) {
        if (stallTimer_) {
            pw_loop_destroy_source(pw_thread_loop_get_loop(connection_.threadLoop()), stallTimer_);
            stallTimer_ = nullptr;
        }
        if (!stream_)
            return;
        for (auto* tap : taps_)
            tap->setConsumer(nullptr, false);
        // A sink's process that loaded this stream before must be over before it is destroyed.
        connection_.fenceDataThread();
        spa_hook_remove(hook_.get());
        hook_.reset();
        // Destroying with the loop locked waits for the data thread to leave the callback.
        pw_stream_destroy(stream_);
        stream_ = nullptr;
    });
}

} // namespace tonavi
