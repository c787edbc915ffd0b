#include "platform/sim/SimIOProc.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>

#include "platform/sim/WavFile.hpp"

namespace tonavi {

namespace {
double toDB(double linear) {
    return linear > 1e-6 ? 20.0 * std::log10(linear) : -120.0;
}
std::uint64_t steadyNanos() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}
} // namespace

SimIOProc::SimIOProc(AudioDeviceIOProcID id, AudioObjectID device, AudioDeviceIOBlock block)
    : id_(id), device_(device), block_(std::move(block)) {}

SimIOProc::~SimIOProc() {
    stopThread();
}

void SimIOProc::setStreamUsage(bool input, std::vector<std::uint32_t> flags) {
    (input ? inputUsage_ : outputUsage_) = std::move(flags);
}

std::vector<std::uint32_t> SimIOProc::streamUsage(bool input, std::size_t streams) const {
    const auto& usage = input ? inputUsage_ : outputUsage_;
    std::vector<std::uint32_t> flags(streams, 1);
    for (std::size_t i = 0; i < streams && i < usage.size(); ++i)
        flags[i] = usage[i] != 0 ? 1 : 0;
    return flags;
}

void SimIOProc::prepare(const Layout& layout) {
    layout_ = layout;
    const std::uint32_t frames = std::max<std::uint32_t>(layout.frames, 1);
    layout_.frames = frames;
    const auto inUsage = streamUsage(true, layout.inputStreams.size());
    const auto outUsage = streamUsage(false, layout.outputStreams.size());
    inputStorage_.assign(layout.inputStreams.size(), {});
    outputStorage_.assign(layout.outputStreams.size(), {});
    inputBuffers_.assign(layout.inputStreams.size(), {});
    outputBuffers_.assign(layout.outputStreams.size(), {});
    for (std::size_t i = 0; i < layout.inputStreams.size(); ++i) {
        const auto channels = layout.inputStreams[i];
        inputBuffers_[i].mNumberChannels = channels;
        if (inUsage[i] == 0)
            continue; // a stream switched off has no data at all
        inputStorage_[i].assign(static_cast<std::size_t>(frames) * channels, 0.0f);
        inputBuffers_[i].mDataByteSize = static_cast<std::uint32_t>(inputStorage_[i].size() * sizeof(float));
        inputBuffers_[i].mData = inputStorage_[i].data();
    }
    for (std::size_t i = 0; i < layout.outputStreams.size(); ++i) {
        const auto channels = layout.outputStreams[i];
        outputBuffers_[i].mNumberChannels = channels;
        if (outUsage[i] == 0)
            continue;
        outputStorage_[i].assign(static_cast<std::size_t>(frames) * channels, 0.0f);
        outputBuffers_[i].mDataByteSize =
            static_cast<std::uint32_t>(outputStorage_[i].size() * sizeof(float));
        outputBuffers_[i].mData = outputStorage_[i].data();
    }
    sampleTime_ = 0;
    windowPeak_ = windowSumSquares_ = 0;
    windowSamples_ = windowFrames_ = 0;
    windowCrossings_ = 0;
}

void SimIOProc::setTones(std::size_t slot, std::span<const Tone> tones) {
    if (slot >= maxTapStreams)
        return;
    const auto count = std::min(tones.size(), maxSourcesPerStream);
    toneSequence_.fetch_add(1, std::memory_order_acq_rel); // odd: writing
    for (std::size_t i = 0; i < count; ++i) {
        toneFrequency_[slot][i].store(tones[i].frequency, std::memory_order_relaxed);
        toneAmplitude_[slot][i].store(tones[i].amplitude, std::memory_order_relaxed);
    }
    toneCount_[slot].store(static_cast<std::uint32_t>(count), std::memory_order_relaxed);
    toneSequence_.fetch_add(1, std::memory_order_release);
}

std::uint64_t SimIOProc::cyclePeriodNanos() const {
    const double rate = layout_.sampleRate > 0 ? layout_.sampleRate : 48000.0;
    return static_cast<std::uint64_t>(std::llround(1e9 * layout_.frames / rate));
}

void SimIOProc::fillInputs() {
    // A consistent copy of the tones, retried if a writer was busy.
    std::array<std::array<Tone, maxSourcesPerStream>, maxTapStreams> tones{};
    std::array<std::uint32_t, maxTapStreams> counts{};
    for (;;) {
        const auto before = toneSequence_.load(std::memory_order_acquire);
        if (before & 1U)
            continue;
        for (std::size_t s = 0; s < maxTapStreams; ++s) {
            counts[s] = toneCount_[s].load(std::memory_order_relaxed);
            for (std::size_t i = 0; i < counts[s]; ++i)
                tones[s][i] = {toneFrequency_[s][i].load(std::memory_order_relaxed),
                               toneAmplitude_[s][i].load(std::memory_order_relaxed)};
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        if (toneSequence_.load(std::memory_order_relaxed) == before)
            break;
    }
    const double rate = layout_.sampleRate > 0 ? layout_.sampleRate : 48000.0;
    const std::uint32_t frames = layout_.frames;
    for (std::size_t b = 0; b < inputBuffers_.size(); ++b) {
        auto& buffer = inputBuffers_[b];
        if (!buffer.mData)
            continue;
        auto* out = static_cast<float*>(buffer.mData);
        const auto channels = buffer.mNumberChannels;
        std::fill(out, out + static_cast<std::size_t>(frames) * channels, 0.0f);
        const int slot = b < layout_.tapSlotOfStream.size() ? layout_.tapSlotOfStream[b] : -1;
        if (slot < 0 || slot >= static_cast<int>(maxTapStreams))
            continue;
        for (std::size_t t = 0; t < counts[slot]; ++t) {
            const auto tone = tones[slot][t];
            double& phase = phase_[slot][t];
            const double step = 2.0 * std::numbers::pi * tone.frequency / rate;
            for (std::uint32_t f = 0; f < frames; ++f) {
                const auto sample = static_cast<float>(tone.amplitude * std::sin(phase));
                for (std::uint32_t c = 0; c < channels; ++c)
                    out[f * channels + c] += sample;
                phase += step;
            }
            phase = std::fmod(phase, 2.0 * std::numbers::pi);
        }
    }
}

void SimIOProc::meterAndRecord() {
    const std::uint32_t frames = layout_.frames;
    bool firstChannelSeen = false;
    for (const auto& buffer : outputBuffers_) {
        if (!buffer.mData)
            continue;
        const auto* data = static_cast<const float*>(buffer.mData);
        const std::size_t count = static_cast<std::size_t>(frames) * buffer.mNumberChannels;
        for (std::size_t i = 0; i < count; ++i) {
            const double v = data[i];
            windowPeak_ = std::max(windowPeak_, std::abs(v));
            windowSumSquares_ += v * v;
        }
        windowSamples_ += count;
        if (!firstChannelSeen && buffer.mNumberChannels > 0) {
            firstChannelSeen = true;
            for (std::uint32_t f = 0; f < frames; ++f) {
                const float v = data[f * buffer.mNumberChannels];
                if (lastFirstChannel_ < 0.0f && v >= 0.0f)
                    ++windowCrossings_;
                lastFirstChannel_ = v;
            }
        }
    }
    windowFrames_ += frames;
    const double rate = layout_.sampleRate > 0 ? layout_.sampleRate : 48000.0;
    if (static_cast<double>(windowFrames_) >= rate / 10.0) {
        meterPeak_.store(windowPeak_, std::memory_order_relaxed);
        meterRMS_.store(windowSamples_ ? std::sqrt(windowSumSquares_ / static_cast<double>(windowSamples_))
                                       : 0.0,
                        std::memory_order_relaxed);
        meterFrequency_.store(windowCrossings_ * rate / static_cast<double>(windowFrames_),
                              std::memory_order_relaxed);
        windowPeak_ = windowSumSquares_ = 0;
        windowSamples_ = windowFrames_ = 0;
        windowCrossings_ = 0;
    }

    Recording* r = recording_.load(std::memory_order_acquire);
    if (!r || !r->active.load(std::memory_order_acquire))
        return;
    std::size_t at = r->frames.load(std::memory_order_relaxed);
    const std::size_t room = r->samples.size() / r->channels - at;
    const std::size_t n = std::min<std::size_t>(room, frames);
    for (std::size_t f = 0; f < n; ++f) {
        std::uint32_t channel = 0;
        for (const auto& buffer : outputBuffers_) {
            const auto* data = static_cast<const float*>(buffer.mData);
            for (std::uint32_t c = 0; c < buffer.mNumberChannels; ++c, ++channel)
                r->samples[(at + f) * r->channels + channel] =
                    data ? data[f * buffer.mNumberChannels + c] : 0.0f;
        }
    }
    r->frames.store(at + n, std::memory_order_release);
}

void SimIOProc::runCycle(std::uint64_t hostTime) {
    // A stalled device keeps time but delivers nothing: the block is not called.
    if (stalled_.load(std::memory_order_relaxed)) {
        sampleTime_ += layout_.frames;
        return;
    }
    fillInputs();
    for (auto& buffer : outputBuffers_)
        if (buffer.mData)
            std::fill_n(static_cast<float*>(buffer.mData), buffer.mDataByteSize / sizeof(float), 0.0f);
    AudioBufferList input{std::span<AudioBuffer>(inputBuffers_)};
    AudioBufferList output{std::span<AudioBuffer>(outputBuffers_)};
    AudioTimeStamp time;
    time.mSampleTime = sampleTime_;
    time.mHostTime = hostTime;
    time.mFlags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;
    if (block_)
        block_(input, output, time);
    sampleTime_ += layout_.frames;
    meterAndRecord();
    cycles_.fetch_add(1, std::memory_order_relaxed);
}

void SimIOProc::startThread() {
    stopThread();
    threadStop_.store(false);
    thread_ = std::thread([this] {
        const auto period = std::chrono::nanoseconds(cyclePeriodNanos());
        auto next = std::chrono::steady_clock::now();
        while (!threadStop_.load(std::memory_order_acquire)) {
            runCycle(steadyNanos());
            next += period;
            // Paced like hardware: a late cycle does not try to catch up.
            const auto now = std::chrono::steady_clock::now();
            if (next < now)
                next = now;
            std::this_thread::sleep_until(next);
        }
    });
}

void SimIOProc::stopThread() {
    threadStop_.store(true, std::memory_order_release);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
        thread_.join();
}

SimIOProc::Meter SimIOProc::meter() const {
    return {toDB(meterPeak_.load(std::memory_order_relaxed)), toDB(meterRMS_.load(std::memory_order_relaxed)),
            meterFrequency_.load(std::memory_order_relaxed), cycles_.load(std::memory_order_relaxed)};
}

std::string SimIOProc::startRecording(const std::string& path, double seconds) {
    std::lock_guard<std::mutex> guard(recordingMutex_);
    if (recording_.load())
        return "a recording is already running";
    if (path.empty())
        return "a recording needs a path";
    if (!(seconds > 0.0 && seconds <= 600.0))
        return "a recording lasts between 0 and 600 seconds";
    std::uint32_t channels = 0;
    for (auto c : layout_.outputStreams)
        channels += c;
    if (channels == 0)
        return "the device has no output channels to record";
    auto r = std::make_unique<Recording>();
    r->path = path;
    r->channels = channels;
    const auto frames = static_cast<std::size_t>(std::ceil(seconds * layout_.sampleRate));
    r->samples.assign(frames * channels, 0.0f);
    recording_.store(r.get(), std::memory_order_release);
    recordings_.push_back(std::move(r));
    return {};
}

bool SimIOProc::isRecordingComplete() const {
    const Recording* r = recording_.load(std::memory_order_acquire);
    return r && r->frames.load(std::memory_order_acquire) * r->channels >= r->samples.size();
}

std::string SimIOProc::stopRecording() {
    std::lock_guard<std::mutex> guard(recordingMutex_);
    Recording* r = recording_.exchange(nullptr, std::memory_order_acq_rel);
    if (!r)
        return "no recording is running";
    r->active.store(false, std::memory_order_release);
    const auto frames = r->frames.load(std::memory_order_acquire);
    // The buffer stays owned here until the proc goes, so a cycle still writing past `frames` is harmless.
    return WavFile::writeFloat32(r->path, layout_.sampleRate, r->channels,
                                 std::span<const float>(r->samples.data(), frames * r->channels));
}

} // namespace tonavi
