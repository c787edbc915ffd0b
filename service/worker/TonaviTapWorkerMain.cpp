#include "service/worker/TonaviTapWorkerMain.hpp"

#include "base/Dispatch.hpp"
#include "platform/PlatformBackend.hpp"
#include "service/plugins/AURunningSlot.hpp"
#include "service/taps/TonaviTapProvider.hpp"
#include "service/worker/TapWorkerEnvelope.hpp"
#include "service/worker/TapWorkerEventWriter.hpp"
#include "service/worker/TapWorkerRenderer.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

namespace tonavi::TonaviTapWorkerMain {

namespace {

using namespace std::chrono_literals;

// Lines of a descriptor, without their line feed; nothing at the end of input. A last line without
// its line feed is not a whole protocol line and is dropped.
class LineReader {
  public:
    explicit LineReader(int fd) : fd_(fd) {}
    std::optional<std::string> next() {
        for (;;) {
            if (auto at = buffer_.find('\n'); at != std::string::npos) {
                std::string line = buffer_.substr(0, at);
                buffer_.erase(0, at + 1);
                return line;
            }
            char chunk[4096];
            ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

  private:
    const int fd_;
    std::string buffer_;
};

// Far beyond any render cycle, and well inside the service's stale-IO limit.
constexpr double stalledPluginSeconds = 1.0;

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// How the worker ends once its tap exists: the tap is released first, so that the application is
// not left pointing at a sink that dies with us. Whoever ends the worker first (the stop message, the
// end of input, the parent's death) takes the lock for good; the others wait there for the end.
std::mutex leaveLock;
std::mutex releaseLock;
std::function<void()> releaseTap; // guarded by releaseLock; empty until the tap exists

[[noreturn]] void leave(int status) {
    leaveLock.lock();
    // A release that hangs must not keep the worker alive: the alarm's default action ends it.
    ::alarm(2);
    std::function<void()> release;
    {
        std::lock_guard guard(releaseLock);
        release = releaseTap;
    }
    if (release)
        release();
    _exit(status);
}

// The parent watch. The kernel's parent-death signal reaches us even when the parent is killed
// outright; it is also sent when merely the thread that started us ends, so the handler checks that
// the parent really changed. The exit source releases the tap and ends the process; the signal only
// arms the alarm, in case the exit source never gets to run.
pid_t watchedParent = 0;

extern "C" void onParentDeathSignal(int) {
    if (::getppid() != watchedParent)
        ::alarm(2);
}

std::unique_ptr<ProcessExitSource> watchParent(pid_t parent) {
    watchedParent = parent;
    struct sigaction action {};
    action.sa_handler = onParentDeathSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR2, &action, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGUSR2);
    auto source = std::make_unique<ProcessExitSource>(parent, DispatchQueue::global(QoS::userInitiated),
                                                      [] { leave(exitNormal); });
    source->resume();
    // Gone between the first look and the watch: neither would fire any more.
    if (::getppid() != parent)
        _exit(exitNormal);
    return source;
}

TapWorkerEvent readyEvent(TonaviTapProvider& provider, const TonaviTapHandle& handle) {
    TapWorkerEvent event;
    event.kind = TapWorkerEvent::ready;
    event.level = provider.level(handle.bundleID);
    event.sampleRate = handle.sampleRate;
    event.tapBufferFrames = handle.tapBufferFrames;
    event.outputBufferFrames = handle.outputBufferFrames.load();
    event.sourceDeviceUID = handle.sourceDeviceUID;
    event.targetDeviceUID = handle.targetDeviceUID;
    event.lastIOAt = handle.lastIOAt.load();
    event.lastRawAudioAt = handle.lastRawAudioAt.load();
    return event;
}

} // namespace

int run(const std::string& bundleID, const std::string& routeUID) {
    const pid_t parent = ::getppid();
    if (parent < 2)
        return exitUnavailable;
    auto parentWatch = watchParent(parent);

    TapWorkerEventWriter writer(STDOUT_FILENO);
    // A plug-in that crashes us is named in our last words, so the service bypasses its slot.
    AURunningSlot::installCrashReport(STDOUT_FILENO);
    LineReader input(STDIN_FILENO);

    std::optional<TapWorkerEnvelope> first;
    if (auto line = input.next())
        first = TapWorkerEnvelope::decode(*line);
    if (!first || first->action != TapWorkerEnvelope::stateAction || !first->state ||
        first->state->app.id != bundleID) {
        writer.send(TapWorkerEvent::failed("missing initial render state"));
        parentWatch->cancel();
        return exitNoState;
    }
    const TapWorkerState initialState = *first->state;

    PlatformBackend* backend = PlatformBackend::current();
    if (!backend) {
        writer.send(TapWorkerEvent::failed("Core Audio tap creation failed"));
        parentWatch->cancel();
        return exitNoTap;
    }
    AudioHardware& audio = backend->audio();
    auto provider = TonaviTapProvider::make(audio, backend->workspace());

    // Made once, from createTap, before IO starts; the IO thread only reads the pointer.
    std::unique_ptr<TapWorkerRenderer> rendererOwner;
    std::atomic<TapWorkerRenderer*> renderer{nullptr};
    provider->setOnStreamFormat([&](double sampleRate) {
        if (rendererOwner)
            return;
        rendererOwner = std::make_unique<TapWorkerRenderer>(initialState, writer, sampleRate);
        renderer.store(rendererOwner.get());
    });
    // The route is fixed for the worker's life: a new route means a new worker.
    provider->setRouteFor([routeUID](const std::string&) { return routeUID; });
    provider->setRender([&](const std::string&, std::span<float> buffer, int frames, std::uint64_t hostTime) {
        if (auto* active = renderer.load())
            active->render(buffer, frames, static_cast<double>(audio.convertHostTimeToNanos(hostTime)) / 1e9);
    });
    provider->setOnTapFailure(
        [&writer](const std::string&, const std::string& message) { writer.send(TapWorkerEvent::failed(message)); });

    auto handle = std::dynamic_pointer_cast<TonaviTapHandle>(provider->createTap(bundleID));
    if (!handle) {
        writer.send(TapWorkerEvent::failed("Core Audio tap creation failed"));
        parentWatch->cancel();
        return exitNoTap;
    }

    // The tap is only worth announcing once playback really runs.
    const auto deadline = std::chrono::steady_clock::now() + 1500ms;
    while (handle->ioCallbackCount.load() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    if (handle->ioCallbackCount.load() == 0 || !renderer.load()) {
        writer.send(TapWorkerEvent::failed("output started without valid playback buffers"));
        provider->destroyTap(handle);
        parentWatch->cancel();
        return exitNoTap;
    }

    {
        std::lock_guard guard(releaseLock);
        releaseTap = [provider, handle] { provider->destroyTap(handle); };
    }

    // Sent before plug-ins load, so the service's wait does not include their loading.
    writer.send(readyEvent(*provider, *handle));
    renderer.load()->enableAudioUnits();

    std::binary_semaphore stopped{0};
    DispatchQueue::global(QoS::userInitiated).async([&input, &stopped, active = renderer.load(), bundleID] {
        while (auto line = input.next()) {
            auto envelope = TapWorkerEnvelope::decode(*line);
            if (!envelope || envelope->action == TapWorkerEnvelope::stopAction)
                break;
            if (envelope->action == TapWorkerEnvelope::stateAction && envelope->state &&
                envelope->state->app.id == bundleID)
                active->apply(*envelope->state);
        }
        stopped.release();
    });

    std::uint64_t seenIO = handle->ioCallbackCount.load();
    std::uint64_t seenRaw = 0;
    DispatchTimer metrics(DispatchQueue::global(QoS::utility), 250ms, 500ms, [&] {
        // A render stuck inside a plug-in holds the app off its direct path: name the slot and end
        // the worker, whose death gives the app back to the system.
        if (auto slotID = AURunningSlot::stalledRender(stalledPluginSeconds)) {
            writer.send(TapWorkerEvent::slotFailed(*slotID, "stopped responding in its render"));
            _exit(exitNormal);
        }
        renderer.load()->deliverAudioUnitFailures();
        const std::uint64_t io = handle->ioCallbackCount.load();
        const std::uint64_t raw = handle->rawAudioCallbackCount.load();
        const double now = secondsSince1970();
        if (io != seenIO) {
            seenIO = io;
            handle->lastIOAt.store(now);
        }
        if (raw != seenRaw) {
            seenRaw = raw;
            handle->lastRawAudioAt.store(now);
        }
        TapWorkerEvent event;
        event.kind = TapWorkerEvent::metrics;
        event.level = provider->level(bundleID);
        event.tapBufferFrames = handle->tapBufferFrames;
        event.outputBufferFrames = handle->outputBufferFrames.load();
        event.lastIOAt = handle->lastIOAt.load();
        event.lastRawAudioAt = handle->lastRawAudioAt.load();
        writer.send(event);
    });
    metrics.resume();

    stopped.acquire();
    metrics.cancel();
    parentWatch->cancel();
    leave(exitNormal);
}

void runIfRequested(int argc, char** argv) {
    int at = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], flag) == 0) {
            at = i;
            break;
        }
    }
    if (at < 0)
        return;
    if (at + 1 >= argc || argv[at + 1][0] == '\0')
        _exit(exitUsage);
    const std::string routeUID = at + 2 < argc ? argv[at + 2] : "";
    // No destructors: threads blocked on the pipes must not hold up the end.
    _exit(run(argv[at + 1], routeUID));
}

}  // namespace tonavi::TonaviTapWorkerMain
