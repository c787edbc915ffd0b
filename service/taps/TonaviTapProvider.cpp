#include "service/taps/TonaviTapProvider.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>

#include "audio/tap/ProcessTapBufferSelector.hpp"
#include "audio/tap/ProcessTapOutputMapper.hpp"
#include "base/Encoding.hpp"
#include "base/Log.hpp"
#include "core/engine/TonaviTapSafety.hpp"

namespace tonavi {

namespace {

// A peak above this (float bits 0x37A7C5AC) is sound rather than digital silence.
constexpr float rawAudioThreshold = 2e-5f;

// Numbers in log lines read as the system always wrote them: a whole double keeps its ".0".
std::string number(double value) {
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, error == std::errc() ? end : buffer);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

std::string joined(const std::vector<int>& counts) {
    std::string text;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        if (i > 0)
            text += ',';
        text += std::to_string(counts[i]);
    }
    return text;
}

double systemNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

std::shared_ptr<TonaviTapProvider> TonaviTapProvider::make(AudioHardware& hardware, Workspace& workspace,
                                                           WallClock clock) {
    return std::make_shared<TonaviTapProvider>(Passkey{}, hardware, workspace, std::move(clock));
}

TonaviTapProvider::TonaviTapProvider(Passkey, AudioHardware& hardware, Workspace& workspace, WallClock clock)
    : hardware_(hardware), workspace_(workspace), clock_(std::move(clock)) {}

TonaviTapProvider::~TonaviTapProvider() {
    std::vector<std::shared_ptr<TonaviTapHandle>> handles;
    {
        std::lock_guard<std::mutex> guard(stateMutex_);
        for (auto& [id, handle] : liveHandles_)
            handles.push_back(handle);
    }
    // A provider that goes away takes its taps with it, so no app stays silenced.
    for (auto& handle : handles)
        destroyTap(handle);
}

double TonaviTapProvider::now() const {
    return clock_ ? clock_() : systemNow();
}

std::shared_ptr<TonaviTapHandle> TonaviTapProvider::liveHandle(std::string_view bundleID) const {
    std::lock_guard<std::mutex> guard(stateMutex_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? nullptr : it->second;
}

float TonaviTapProvider::level(std::string_view bundleID) const {
    auto handle = liveHandle(bundleID);
    return handle ? handle->meterLevel.load(std::memory_order_relaxed) : 0.0f;
}

std::optional<std::string> TonaviTapProvider::targetDevice(std::string_view bundleID) const {
    auto handle = liveHandle(bundleID);
    if (!handle)
        return std::nullopt;
    return handle->targetDeviceUID;
}

OSStatus TonaviTapProvider::makeTap(TonaviTapHandle& handle, const std::vector<AudioObjectID>& objects,
                                    bool mixdown, float compensation, std::string& tapUUID) {
    TapDescription description = mixdown ? TapDescription::stereoMixdown(objects)
                                         : TapDescription::deviceStream(objects, handle.sourceDeviceUID, 0);
    description.name = "Tonavi " + handle.bundleID;
    description.isPrivate = true;
    description.muteBehavior = TapMuteBehavior::mutedWhenTapped;
    handle.tapForm = mixdown ? TonaviTapHandle::mixdownForm : TonaviTapHandle::deviceStreamForm;
    handle.tapGainCompensation = mixdown ? compensation : 1.0f;
    AudioObjectID tap = kAudioObjectUnknown;
    OSStatus status = hardware_.createProcessTap(description, tap);
    if (status == noErr && tap == kAudioObjectUnknown)
        status = kAudioHardwareUnspecifiedError;
    if (status == noErr) {
        handle.tapID = tap;
        tapUUID = description.uuid;
    }
    return status;
}

void TonaviTapProvider::releaseParts(TonaviTapHandle& handle) {
    if (handle.ioProcID) {
        hardware_.deviceStop(handle.aggregateID, *handle.ioProcID);
        hardware_.destroyIOProcID(handle.aggregateID, *handle.ioProcID);
        handle.ioProcID.reset();
    }
    if (handle.aggregateID != kAudioObjectUnknown) {
        hardware_.destroyAggregateDevice(handle.aggregateID);
        handle.aggregateID = kAudioObjectUnknown;
    }
    // Last: the app is heard on its direct path again only when the tap is gone.
    if (handle.tapID != kAudioObjectUnknown) {
        hardware_.destroyProcessTap(handle.tapID);
        handle.tapID = kAudioObjectUnknown;
    }
}

TapHandlePtr TonaviTapProvider::createTap(const std::string& id) {
    if (!TonaviTapSafety::mayCapture(id)) {
        Log::info("tonavi: refused to tap audio-routing infrastructure " + id);
        return nullptr;
    }
    const auto group = processGroup(hardware_, workspace_, id);
    {
        std::lock_guard<std::mutex> guard(stateMutex_);
        if (group.objects.empty()) {
            // An app without an audio process is normal; say so once per absence.
            if (deferredProcessLogs_.insert(id).second)
                Log::info("tonavi: no running audio process for " + id + "; engagement deferred");
            return nullptr;
        }
        deferredProcessLogs_.erase(id);
    }

    auto handle = std::make_shared<TonaviTapHandle>();
    handle->bundleID = id;
    handle->createdAt = now();
    handle->lastIOAt.store(handle->createdAt);
    handle->processIdentity = group.identity;

    std::string target = routeFor_ ? routeFor_(id) : std::string();
    if (!target.empty() && !deviceExists(hardware_, target)) {
        Log::info("tonavi: " + id + " target device " + target +
                  " is gone; playing on default until it returns");
        target.clear();
    }
    if (target.empty())
        target = defaultOutputUID(hardware_);
    if (target.empty()) {
        Log::info("tonavi: no output device available for " + id);
        return nullptr;
    }
    handle->targetDeviceUID = target;
    const AudioObjectID targetID = deviceID(hardware_, target);
    if (targetID == kAudioObjectUnknown) {
        Log::info("tonavi: output device " + target + " vanished before tap start for " + id);
        return nullptr;
    }
    handle->sourceDeviceUID = defaultOutputUID(hardware_);
    if (deviceID(hardware_, handle->sourceDeviceUID) == kAudioObjectUnknown) {
        Log::info("tonavi: source output device " + handle->sourceDeviceUID +
                  " vanished before tap start for " + id);
        return nullptr;
    }

    int channels = 0;
    for (int c : streamChannelCounts(hardware_, targetID, kAudioObjectPropertyScopeOutput))
        channels += c;
    channels = std::max(channels, 2);
    // The stereo mixdown of a multichannel device loses level; the compensation gives it back.
    const float compensation = static_cast<float>(channels) * 0.5f;

    std::string tapUUID;
    const bool sameDevice = handle->sourceDeviceUID == target;
    OSStatus status = makeTap(*handle, group.objects, sameDevice, compensation, tapUUID);
    if (status != noErr && !sameDevice)
        status = makeTap(*handle, group.objects, true, compensation, tapUUID);
    if (status != noErr) {
        Log::info("tonavi: tap create failed for " + id + " (" + std::to_string(status) +
                  "); system audio permission needed (G4)");
        return nullptr;
    }

    AggregateDeviceDescription aggregate;
    aggregate.uid = aggregateUIDPrefix + id + "." + makeUUID();
    aggregate.name = "Tonavi " + id;
    aggregate.isPrivate = true;
    aggregate.mainSubDevice = target;
    aggregate.subDevices = {{target, true}};
    aggregate.taps = {{tapUUID, true}};
    AudioObjectID aggregateID = kAudioObjectUnknown;
    status = hardware_.createAggregateDevice(aggregate, aggregateID);
    if (status != noErr || aggregateID == kAudioObjectUnknown) {
        releaseParts(*handle);
        Log::info("tonavi: aggregate create failed for " + id + " (" + std::to_string(status) + ")");
        return nullptr;
    }
    handle->aggregateID = aggregateID;
    auto fail = [&](const std::string& message) -> TapHandlePtr {
        releaseParts(*handle);
        if (!message.empty())
            Log::info(message);
        return nullptr;
    };

    double rate = 0;
    if (hardware_.get(aggregateID, globalAddress(kAudioDevicePropertyNominalSampleRate), rate) != noErr ||
        !std::isfinite(rate) || rate <= 0)
        return fail({});
    handle->sampleRate = rate;
    if (onStreamFormat_)
        onStreamFormat_(rate);

    const auto frameSizeAddress = globalAddress(kAudioDevicePropertyBufferFrameSize);
    std::uint32_t before = 0;
    hardware_.get(aggregateID, frameSizeAddress, before);
    if (preservesTransportBuffer(hardware_, targetID)) {
        // A forced size breaks the link's own timing.
        Log::info("tonavi: " + id + " retaining wireless tap quantum " + std::to_string(before) + " frames");
    } else {
        const int requested = preferredTapBufferFrameSize(hardware_, aggregateID);
        bool settable = false;
        bool accepted = false;
        if (hardware_.isPropertySettable(aggregateID, frameSizeAddress, settable) == noErr && settable)
            accepted = hardware_.set(aggregateID, frameSizeAddress,
                                     static_cast<std::uint32_t>(std::max(requested, 1))) == noErr;
        std::uint32_t after = 0;
        hardware_.get(aggregateID, frameSizeAddress, after);
        Log::info("tonavi: " + id + " tap quantum " + std::to_string(before) + " -> " +
                  std::to_string(after) + " frames (requested " + std::to_string(requested) + ", accepted " +
                  (accepted ? "true" : "false") + ")");
    }
    std::uint32_t frames = 0;
    if (hardware_.get(aggregateID, frameSizeAddress, frames) != noErr)
        frames = 0;
    handle->tapBufferFrames = static_cast<int>(frames);
    std::uint32_t outputFrames = 0;
    hardware_.get(targetID, frameSizeAddress, outputFrames);
    handle->outputBufferFrames.store(static_cast<int>(outputFrames));

    const auto inputCounts = streamChannelCounts(hardware_, aggregateID, kAudioObjectPropertyScopeInput);
    const auto tapIndex = kavore::ProcessTapBufferSelector::index(inputCounts);
    if (!tapIndex)
        return fail("tonavi: aggregate has no process-tap input buffer for " + id);
    handle->tapInputBufferIndex = *tapIndex;
    handle->renderBuffer.assign(
        std::max<std::size_t>(TonaviTapHandle::largestQuantumFrames, static_cast<std::size_t>(frames)) * 2, 0.0f);

    std::weak_ptr<TonaviTapProvider> weakProvider = weak_from_this();
    std::weak_ptr<TonaviTapHandle> weakHandle = handle;
    AudioDeviceIOProcID procID = 0;
    status = hardware_.createIOProcIDWithBlock(
        aggregateID, &queue_,
        [weakProvider, weakHandle](const AudioBufferList& input, AudioBufferList& output,
                                   const AudioTimeStamp& outputTime) {
            auto provider = weakProvider.lock();
            auto tapped = weakHandle.lock();
            if (provider && tapped)
                provider->ioCycle(*tapped, input, output, outputTime);
        },
        procID);
    if (status != noErr)
        return fail("tonavi: IO proc create failed for " + id + " (" + std::to_string(status) + ")");
    handle->ioProcID = procID;

    // The aggregate holds a device that may have microphones: only the tap's stream may be read.
    AudioHardwareIOProcStreamUsage usage{procID,
                                         kavore::ProcessTapBufferSelector::inputStreamUsage(inputCounts)};
    if (hardware_.set(aggregateID,
                      scopedAddress(kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeInput),
                      usage) != noErr)
        return fail("tonavi: could not isolate process-tap input for " + id +
                    "; refusing microphone-capable aggregate");

    status = hardware_.deviceStart(aggregateID, procID);
    if (status != noErr)
        return fail("tonavi: device start failed for " + id + " (" + std::to_string(status) + ")");

    {
        std::lock_guard<std::mutex> guard(stateMutex_);
        liveHandles_[id] = handle;
    }
    logStreamFormats(*handle);
    Log::info("tonavi: engaged " + id + " over " + std::to_string(group.objects.size()) +
              " process(es) using " + handle->tapForm + ", source " + handle->sourceDeviceUID +
              " -> target " + target + " (tap " + std::to_string(handle->tapID) + ", aggregate " +
              std::to_string(aggregateID) + ")");
    return handle;
}

void TonaviTapProvider::logStreamFormats(const TonaviTapHandle& handle) {
    const auto inputs = streamChannelCounts(hardware_, handle.aggregateID, kAudioObjectPropertyScopeInput);
    const auto outputs = streamChannelCounts(hardware_, handle.aggregateID, kAudioObjectPropertyScopeOutput);
    Log::info("tonavi: " + handle.bundleID + " stream layout tap[" + joined(inputs) + "] output[" +
              joined(outputs) + "] at " + number(handle.sampleRate) + " Hz; tap buffer " +
              std::to_string(handle.tapBufferFrames));
}

void TonaviTapProvider::destroyTap(const TapHandlePtr& tapHandle) {
    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(tapHandle);
    if (!handle)
        return;
    releaseParts(*handle);
    {
        std::lock_guard<std::mutex> guard(stateMutex_);
        auto it = liveHandles_.find(handle->bundleID);
        if (it != liveHandles_.end() && it->second == handle)
            liveHandles_.erase(it);
    }
    Log::info("tonavi: disengaged " + handle->bundleID + "; direct path restored");
}

void TonaviTapProvider::ioCycle(TonaviTapHandle& handle, const AudioBufferList& input,
                                AudioBufferList& output, const AudioTimeStamp& outputTime) {
    if (handle.tapInputBufferIndex >= input.mBuffers.size())
        return;
    const AudioBuffer& tapBuffer = input.mBuffers[handle.tapInputBufferIndex];
    if (!tapBuffer.mData)
        return;
    const std::size_t channels = std::max<std::uint32_t>(tapBuffer.mNumberChannels, 1);
    const std::size_t samples = tapBuffer.mDataByteSize / sizeof(float);
    if (samples < channels)
        return;
    const std::size_t frames = samples / channels;
    const std::size_t piece = handle.renderBuffer.size() / 2;
    if (piece == 0)
        return;
    const std::uint64_t hostTime = (outputTime.mFlags & kAudioTimeStampHostTimeValid) != 0
                                       ? outputTime.mHostTime
                                       : hardware_.currentHostTime();

    std::size_t outputFrames = 0;
    int destinationChannels = 0;
    bool first = true;
    for (const auto& out : output.mBuffers) {
        const std::size_t outChannels = std::max<std::uint32_t>(out.mNumberChannels, 1);
        const std::size_t room = out.mDataByteSize / sizeof(float) / outChannels;
        outputFrames = first ? room : std::min(outputFrames, room);
        first = false;
        destinationChannels += static_cast<int>(out.mNumberChannels);
    }
    if (outputFrames >= 1)
        handle.outputBufferFrames.store(static_cast<int>(outputFrames), std::memory_order_relaxed);

    bool wroteOutput = false;
    for (auto& out : output.mBuffers) {
        if (out.mData) {
            std::memset(out.mData, 0, out.mDataByteSize);
            wroteOutput = wroteOutput || out.mDataByteSize > 0;
        }
    }

    // Compensation and interleaving in one pass, a buffer's worth at a time (one piece but for a
    // quantum larger than any audio system hands out).
    const auto* in = static_cast<const float*>(tapBuffer.mData);
    const float gain = handle.tapGainCompensation;
    float peak = 0.0f;
    for (std::size_t start = 0; start < frames; start += piece) {
        const std::size_t count = std::min(piece, frames - start);
        const std::span<float> buffer(handle.renderBuffer.data(), count * 2);
        for (std::size_t f = 0; f < count; ++f) {
            const float left = in[(start + f) * channels] * gain;
            const float right = channels > 1 ? in[(start + f) * channels + 1] * gain : left;
            buffer[f * 2] = left;
            buffer[f * 2 + 1] = right;
            peak = std::max({peak, std::abs(left), std::abs(right)});
        }
        if (render_)
            render_(handle.bundleID, buffer, static_cast<int>(count), hostTime);
        handle.meter.process(buffer);

        int channelBase = 0;
        for (auto& out : output.mBuffers) {
            const int outChannels = static_cast<int>(out.mNumberChannels);
            if (out.mData) {
                auto* dst = static_cast<float*>(out.mData);
                const std::size_t stride = std::max(outChannels, 1);
                const std::size_t room = out.mDataByteSize / sizeof(float) / stride;
                for (std::size_t f = start; f < std::min(start + count, room); ++f) {
                    const float left = buffer[(f - start) * 2];
                    const float right = buffer[(f - start) * 2 + 1];
                    // Channels past the first two of the device stay silent.
                    for (int c = 0; c < outChannels && channelBase + c < 2; ++c)
                        dst[f * stride + static_cast<std::size_t>(c)] = kavore::ProcessTapOutputMapper::sample(
                            left, right, channelBase + c, destinationChannels);
                }
            }
            channelBase += outChannels;
        }
    }
    if (peak > rawAudioThreshold)
        handle.rawAudioCallbackCount.fetch_add(1, std::memory_order_relaxed);
    handle.meterLevel.store(handle.meter.normalized(), std::memory_order_relaxed);
    // Only a cycle with a valid output proves that playback runs.
    if (wroteOutput)
        handle.ioCallbackCount.fetch_add(1, std::memory_order_relaxed);
}

} // namespace tonavi
