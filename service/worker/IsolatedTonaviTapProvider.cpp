#include "service/worker/IsolatedTonaviTapProvider.hpp"

#include "base/Dispatch.hpp"
#include "base/Log.hpp"
#include "core/engine/TonaviTapSafety.hpp"
#include "platform/AudioHardware.hpp"
#include "service/taps/TapActivityWindow.hpp"
#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEvent.hpp"
#include "service/worker/TonaviTapWorkerMain.hpp"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace tonavi {

namespace {

using namespace std::chrono_literals;

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double uptimeSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

using Workers = std::vector<std::shared_ptr<IsolatedTapHandle>>;

// Polls every worker at once until all have ended or `limit` has passed; the ones still running.
Workers waitForExit(Workers workers, std::chrono::milliseconds step, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::erase_if(workers, [](const auto& w) { return !w->isRunning(); });
        if (workers.empty() || std::chrono::steady_clock::now() >= deadline)
            return workers;
        std::this_thread::sleep_for(step);
    }
}

std::shared_ptr<IsolatedTapHandle> isolated(const TapHandlePtr& handle) {
    return std::dynamic_pointer_cast<IsolatedTapHandle>(handle);
}

} // namespace

IsolatedTonaviTapProvider::Environment IsolatedTonaviTapProvider::platformEnvironment(AudioHardware& audio,
                                                                                    Workspace& workspace) {
    Environment environment;
    environment.mayCapture = [](std::string_view id) { return TonaviTapSafety::mayCapture(id); };
    environment.processGroup = [&audio, &workspace](const std::string& id) {
        return TonaviTapProvider::processGroup(audio, workspace, id);
    };
    environment.defaultOutputUID = [&audio] { return TonaviTapProvider::defaultOutputUID(audio); };
    environment.deviceID = [&audio](const std::string& uid) -> std::uint32_t {
        return uid.empty() ? 0 : TonaviTapProvider::deviceID(audio, uid);
    };
    environment.now = secondsSince1970;
    environment.uptime = uptimeSeconds;
    return environment;
}

std::string IsolatedTonaviTapProvider::workerExecutableURL() {
    if (const char* override = std::getenv(executableVariable); override && *override)
        return override;
    std::string first;
    std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
    std::getline(cmdline, first, '\0');
    if (first.find('/') == std::string::npos) {
        std::error_code error;
        auto self = std::filesystem::read_symlink("/proc/self/exe", error);
        return error ? first : self.string();
    }
    std::filesystem::path path(first);
    if (path.is_absolute())
        return first;
    return (std::filesystem::current_path() / path).lexically_normal().string();
}

IsolatedTonaviTapProvider::IsolatedTonaviTapProvider(Environment environment)
    : environment_(std::move(environment)) {}

IsolatedTonaviTapProvider::~IsolatedTonaviTapProvider() = default;

void IsolatedTonaviTapProvider::setHooks(Hooks hooks) {
    render = std::move(hooks.render);
    workerStateFor = std::move(hooks.workerState);
    onAudioActivity = std::move(hooks.heard);
    routeFor = std::move(hooks.route);
    onTapFailure = std::move(hooks.tapFailed);
    onAUSlotFailure = std::move(hooks.auSlotFailed);
}

TapHandlePtr IsolatedTonaviTapProvider::createTap(const std::string& bundleID) {
    if (environment_.mayCapture && !environment_.mayCapture(bundleID))
        return nullptr;
    std::optional<TapWorkerState> state = workerStateFor ? workerStateFor(bundleID) : std::nullopt;
    if (!state)
        return nullptr;
    // Nothing of the app plays yet: there is nothing to tap, and that is normal.
    TonaviTapProvider::ProcessGroup group =
        environment_.processGroup ? environment_.processGroup(bundleID) : TonaviTapProvider::ProcessGroup{};
    if (group.objects.empty())
        return nullptr;

    const std::string defaultUID = environment_.defaultOutputUID ? environment_.defaultOutputUID() : "";
    const std::string routeUID = routeFor ? routeFor(bundleID) : "";
    auto deviceID = [&](const std::string& uid) { return environment_.deviceID ? environment_.deviceID(uid) : 0u; };
    const std::string issue = defaultUID + ":" + std::to_string(deviceID(defaultUID)) + "|" + routeUID + ":" +
                              std::to_string(deviceID(routeUID));
    {
        std::lock_guard guard(stateLock_);
        if (!creationBackoff_.permit(bundleID, issue, environment_.uptime()))
            return nullptr;
    }

    auto handle = std::make_shared<IsolatedTapHandle>(bundleID, environment_.now());
    handle->processIdentity = group.identity;
    std::weak_ptr<IsolatedTonaviTapProvider> weakSelf = weak_from_this();
    std::weak_ptr<IsolatedTapHandle> weakHandle = handle;
    std::string launchError;
    const std::string executable = environment_.executable.empty() ? workerExecutableURL() : environment_.executable;
    handle->process = TapWorkerProcess::launch(
        executable, {TonaviTapWorkerMain::flag, bundleID, routeUID}, DispatchQueue::global(QoS::utility),
        [weakSelf, weakHandle](int status) {
            auto self = weakSelf.lock();
            auto handle = weakHandle.lock();
            if (self && handle)
                self->onTermination(handle, status);
            else if (handle)
                handle->signalReady("tap helper exited with status " + std::to_string(status));
        },
        launchError);
    if (!handle->process) {
        Log::info("tonavi: could not launch isolated tap helper for " + bundleID + ": " + launchError);
        return nullptr;
    }
    handle->process->startReading(
        [weakSelf, weakHandle](std::string_view bytes) {
            auto self = weakSelf.lock();
            auto handle = weakHandle.lock();
            if (self && handle)
                self->receive(handle, bytes);
        },
        [weakSelf, weakHandle] {
            auto self = weakSelf.lock();
            auto handle = weakHandle.lock();
            if (self && handle)
                self->onStall(handle);
        },
        environment_.stallLimit);

    // A state that cannot be written fails the start without waiting.
    if (handle->sendState(*state)) {
        const bool signalled = handle->ready.try_acquire_for(environment_.readyTimeout);
        std::optional<std::string> error;
        {
            std::lock_guard guard(handle->protocolLock);
            error = handle->readyError;
        }
        if (signalled && !error && handle->isRunning()) {
            {
                std::lock_guard guard(stateLock_);
                liveHandles_[bundleID] = handle;
                creationBackoff_.reset(bundleID);
            }
            // A change made during the start-up is not lost.
            if (auto latest = workerStateFor ? workerStateFor(bundleID) : std::nullopt; latest && *latest != *state)
                handle->sendState(*latest);
            Log::info("tonavi: isolated tap helper " + std::to_string(handle->pid()) + " owns " + bundleID);
            return handle;
        }
        Log::info("tonavi: isolated tap helper failed for " + bundleID + ": " +
                  error.value_or("tap helper start timed out"));
    }
    handle->intentionalStop.store(true);
    forceStop(handle);
    handle->process->clearReader();
    return nullptr;
}

void IsolatedTonaviTapProvider::receive(const std::shared_ptr<IsolatedTapHandle>& handle, std::string_view bytes) {
    if (bytes.empty())
        return;
    std::vector<std::string> lines;
    {
        std::lock_guard guard(handle->protocolLock);
        handle->protocolBuffer.append(bytes);
        std::size_t at;
        while ((at = handle->protocolBuffer.find('\n')) != std::string::npos) {
            lines.push_back(handle->protocolBuffer.substr(0, at));
            handle->protocolBuffer.erase(0, at + 1);
        }
        // No event is this long: a worker that never ends its line is talking garbage.
        if (handle->protocolBuffer.size() > maximumLineBytes)
            handle->protocolBuffer.clear();
    }
    for (const auto& line : lines) {
        if (auto event = TapWorkerEvent::decode(line))
            consume(handle, *event);
    }
}

void IsolatedTonaviTapProvider::consume(const std::shared_ptr<IsolatedTapHandle>& handle,
                                        const TapWorkerEvent& event) {
    if (event.kind == TapWorkerEvent::ready) {
        updateMetrics(*handle, event);
        handle->signalReady(std::nullopt);
    } else if (event.kind == TapWorkerEvent::metrics) {
        updateMetrics(*handle, event);
        if (event.level && *event.level > activityLevel && onAudioActivity)
            onAudioActivity(handle->bundleID);
    } else if (event.kind == TapWorkerEvent::auFailure) {
        if (event.slotID && onAUSlotFailure)
            onAUSlotFailure(*event.slotID, event.message.value_or("Audio Unit failed in tap helper"));
    } else if (event.kind == TapWorkerEvent::failure) {
        handle->signalReady(event.message.value_or("tap helper failed"));
    }
}

void IsolatedTonaviTapProvider::updateMetrics(IsolatedTapHandle& handle, const TapWorkerEvent& event) {
    // A metrics event carries only what changed; absent fields keep their mirrored value.
    bool shown = false; // whether a value the status shows moved
    auto take = [&shown](auto& field, const auto& value, bool showsInStatus) {
        if (value && !(field == *value)) {
            field = *value;
            shown = shown || showsInStatus;
        }
    };
    std::lock_guard guard(stateLock_);
    take(handle.meterLevel, event.level, true);
    take(handle.sampleRate, event.sampleRate, true);
    take(handle.tapBufferFrames, event.tapBufferFrames, true);
    take(handle.outputBufferFrames, event.outputBufferFrames, true);
    take(handle.sourceDeviceUID, event.sourceDeviceUID, true);
    take(handle.targetDeviceUID, event.targetDeviceUID, true);
    take(handle.lastIOAt, event.lastIOAt, false);
    take(handle.lastRawAudioAt, event.lastRawAudioAt, false);
    if (shown)
        statusRevision_.fetch_add(1, std::memory_order_release);
}

void IsolatedTonaviTapProvider::onTermination(const std::shared_ptr<IsolatedTapHandle>& handle, int status) {
    handle->signalReady("tap helper exited with status " + std::to_string(status));
    bool unexpected;
    {
        std::lock_guard guard(stateLock_);
        auto it = liveHandles_.find(handle->bundleID);
        unexpected = it != liveHandles_.end() && it->second == handle && !handle->intentionalStop.load();
    }
    if (unexpected && onTapFailure)
        onTapFailure(handle->bundleID,
                     handle->stalled.load()
                         ? "isolated tap helper stalled (it read nothing for " + stallText() +
                               "); direct audio restored"
                         : "isolated tap helper exited (status " + std::to_string(status) + "); direct audio restored",
                     handle);
}

// A worker that stopped reading is ended like one that crashed: its app goes direct when it is gone,
// and the failure report (with its health event and retry) follows from its termination.
void IsolatedTonaviTapProvider::onStall(const std::shared_ptr<IsolatedTapHandle>& handle) {
    {
        std::lock_guard guard(stateLock_);
        auto it = liveHandles_.find(handle->bundleID);
        if (it == liveHandles_.end() || it->second != handle || handle->intentionalStop.load())
            return;
    }
    handle->stalled.store(true);
    Log::info("tonavi: isolated tap helper " + std::to_string(handle->pid()) + " for " + handle->bundleID +
              " read nothing for " + stallText() + "; stopping it");
    DispatchQueue::global(QoS::utility).async([self = shared_from_this(), handle] { self->forceStop(handle); });
}

std::string IsolatedTonaviTapProvider::stallText() const {
    const auto ms = environment_.stallLimit.count();
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

void IsolatedTonaviTapProvider::requestStop(IsolatedTapHandle& handle) {
    handle.intentionalStop.store(true);
    if (!handle.sendStop())
        handle.stopUndelivered.store(true);
}

void IsolatedTonaviTapProvider::destroyTap(const TapHandlePtr& handle) {
    auto worker = isolated(handle);
    if (!worker)
        return;
    requestStop(*worker);
    finishStopping(worker);
}

void IsolatedTonaviTapProvider::destroyTaps(const std::vector<TapHandlePtr>& handles) {
    Workers workers;
    for (const auto& handle : handles)
        if (auto worker = isolated(handle))
            workers.push_back(std::move(worker));
    for (const auto& worker : workers)
        requestStop(*worker);
    finishStopping(workers);
}

void IsolatedTonaviTapProvider::retireReplacedTap(const TapHandlePtr& handle) {
    auto worker = isolated(handle);
    if (!worker)
        return;
    requestStop(*worker);
    // The replacement already plays, so nobody waits for the old worker to go.
    DispatchQueue::global(QoS::userInitiated).async([self = shared_from_this(), worker] { self->finishStopping(worker); });
}

void IsolatedTonaviTapProvider::finishStopping(const std::shared_ptr<IsolatedTapHandle>& handle) {
    finishStopping(Workers{handle});
}

// All at once: one loop watches every worker, so N stop in the time of the slowest, not of the sum.
void IsolatedTonaviTapProvider::finishStopping(const Workers& handles) {
    // A worker that could not be told to stop is not waited for: it is ended by signals at once.
    Workers told, stubborn;
    for (const auto& handle : handles)
        (handle->stopUndelivered.load() ? stubborn : told).push_back(handle);
    for (auto& handle : waitForExit(told, 5ms, 1500ms))
        stubborn.push_back(std::move(handle));
    forceStop(stubborn);
    for (const auto& handle : handles) {
        if (handle->process)
            handle->process->clearReader();
        bool remains;
        {
            std::lock_guard guard(stateLock_);
            auto it = liveHandles_.find(handle->bundleID);
            if (it != liveHandles_.end() && it->second == handle)
                liveHandles_.erase(it);
            remains = liveHandles_.contains(handle->bundleID);
        }
        Log::info("tonavi: isolated tap helper released " + handle->bundleID + "; " +
                  (remains ? "replacement remains active" : "direct path restored"));
    }
}

void IsolatedTonaviTapProvider::forceStop(const std::shared_ptr<IsolatedTapHandle>& handle) {
    forceStop(Workers{handle});
}

void IsolatedTonaviTapProvider::forceStop(const Workers& handles) {
    Workers running;
    for (const auto& handle : handles)
        if (handle->process && handle->isRunning()) {
            handle->process->terminate();
            running.push_back(handle);
        }
    for (const auto& handle : waitForExit(std::move(running), 5ms, 400ms))
        handle->process->kill();
}

void IsolatedTonaviTapProvider::syncStates() {
    std::vector<std::shared_ptr<IsolatedTapHandle>> handles;
    {
        std::lock_guard guard(stateLock_);
        for (const auto& [id, handle] : liveHandles_)
            handles.push_back(handle);
    }
    if (!workerStateFor)
        return;
    for (const auto& handle : handles) {
        if (auto state = workerStateFor(handle->bundleID))
            handle->sendState(*state);
    }
}

std::shared_ptr<IsolatedTapHandle> IsolatedTonaviTapProvider::liveHandle(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? nullptr : it->second;
}

float IsolatedTonaviTapProvider::level(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? 0.0f : it->second->meterLevel;
}

double IsolatedTonaviTapProvider::sampleRate(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? 0.0 : it->second->sampleRate;
}

std::optional<ServiceTapProvider::BufferFrames> IsolatedTonaviTapProvider::bufferFrames(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    if (it == liveHandles_.end())
        return std::nullopt;
    return BufferFrames{static_cast<int>(it->second->tapBufferFrames), static_cast<int>(it->second->outputBufferFrames)};
}

std::optional<bool> IsolatedTonaviTapProvider::recentAudioSignal(std::string_view bundleID) const {
    auto handle = liveHandle(bundleID);
    if (!handle || !handle->isRunning())
        return std::nullopt;
    double lastRaw, lastIO;
    {
        std::lock_guard guard(stateLock_);
        lastRaw = handle->lastRawAudioAt;
        lastIO = handle->lastIOAt;
    }
    return TapActivityWindow::recentSignal(lastRaw, handle->createdAt, lastIO, environment_.now(), 2.0);
}

std::optional<double> IsolatedTonaviTapProvider::secondsSinceRawAudio(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    if (it == liveHandles_.end())
        return std::nullopt;
    const auto& handle = *it->second;
    return environment_.now() - (handle.lastRawAudioAt > 0 ? handle.lastRawAudioAt : handle.createdAt);
}

bool IsolatedTonaviTapProvider::ioStale(std::string_view bundleID, double olderThan) const {
    auto handle = liveHandle(bundleID);
    if (!handle)
        return false;
    if (!handle->isRunning())
        return true;
    std::lock_guard guard(stateLock_);
    return environment_.now() - handle->lastIOAt > olderThan;
}

bool IsolatedTonaviTapProvider::processGroupChanged(std::string_view bundleID,
                                                    const std::optional<TapProcessIdentity>& current) const {
    auto handle = liveHandle(bundleID);
    if (!handle)
        return false;
    if (current)
        return handle->processIdentity.needsRefresh(*current);
    if (!environment_.processGroup)
        return false;
    return handle->processIdentity.needsRefresh(environment_.processGroup(handle->bundleID).identity);
}

std::optional<std::string> IsolatedTonaviTapProvider::targetDevice(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? std::nullopt : std::optional(it->second->targetDeviceUID);
}

std::optional<std::string> IsolatedTonaviTapProvider::sourceDevice(std::string_view bundleID) const {
    std::lock_guard guard(stateLock_);
    auto it = liveHandles_.find(bundleID);
    return it == liveHandles_.end() ? std::nullopt : std::optional(it->second->sourceDeviceUID);
}

void IsolatedTonaviTapProvider::resetCreationBackoff() {
    std::lock_guard guard(stateLock_);
    creationBackoff_ = TapRecoveryBackoff(2.0, 30.0);
}

} // namespace tonavi
