// The service's entry: one instance per user, a control socket, and an orderly stop on SIGTERM.

#include "base/Dispatch.hpp"
#include "base/Log.hpp"
#include "base/Paths.hpp"
#include "core/config/TonaviConfigStore.hpp"
#include "platform/PlatformBackend.hpp"
#include "service/TonaviControlServer.hpp"
#include "service/TonaviRuntime.hpp"
#include "service/worker/IsolatedTonaviTapProvider.hpp"
#include "service/worker/TonaviTapWorkerMain.hpp"

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace tonavi;

namespace {
// Process-wide values; none is ever released, since the process ends with _exit.
int lockFD = -1;
TonaviRuntime* runtime = nullptr;
std::shared_ptr<TonaviControlServer> server;
SignalSource* termination = nullptr;
}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    TonaviTapWorkerMain::runIfRequested(argc, argv);

    std::string supportDirectory = Paths::supportDirectory();
    Paths::createDirectories(supportDirectory);  // a failure shows up as a failed lock next

    std::string lockPath = supportDirectory + "/service.lock";
    lockFD = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFD < 0 || ::flock(lockFD, LOCK_EX | LOCK_NB) != 0) {
        Log::info("Tonavi service: another instance already owns the runtime; exiting");
        return 0;
    }

    std::string version = TonaviRuntime::versionFromEnvironment();
    Log::info("Tonavi service " + version + " starting");

    TonaviRuntime::Environment environment;
    environment.version = version;
    environment.store = std::make_shared<TonaviConfigStore>(TonaviConfigStore::defaultBase());
    std::string backendError;
    PlatformBackend* backend = PlatformBackend::current(&backendError);
    if (!backend) {
        Log::info("Tonavi service cannot reach the audio system: " + backendError);
        return 1;
    }
    environment.audio = backend->sharedAudio();
    // The simulated machine is a Mac; on PipeWire applications go by their Linux identifiers.
    if (backend->name() == "pipewire")
        environment.store->platform = AppPlatform::linuxDesktop;
    // On Linux battery and signal of Bluetooth devices are BlueZ's; a simulated machine has none.
    if (backend->name() == "pipewire")
        environment.bluetoothProfiler = BluetoothInfo::readBlueZ;
    // The backend lives as long as the process; the runtime borrows its workspace.
    environment.workspace = std::shared_ptr<Workspace>(std::shared_ptr<Workspace>(), &backend->workspace());
    environment.installedApplications = [backend] { return backend->installedApplications(); };
    // Controllers on this machine; a backend without MIDI leaves the mappings a list.
    environment.midi = backend->midi();
    // Every tap lives in a worker process of its own; the runtime connects the provider's hooks.
    environment.tapProvider = std::make_shared<IsolatedTonaviTapProvider>(
        IsolatedTonaviTapProvider::platformEnvironment(backend->audio(), backend->workspace()));
    runtime = new TonaviRuntime(std::move(environment));

    server = std::make_shared<TonaviControlServer>(*runtime, Paths::controlSocketPath());
    // Before the socket answers: whoever sees it answer may stop the service at once, and a SIGTERM
    // between ignoring the signal and the source taking it would be lost.
    // Ignore first, so that only the source acts on the signal.
    std::signal(SIGTERM, SIG_IGN);
    termination = new SignalSource(SIGTERM, DispatchQueue::main(), [] {
        Log::info("Tonavi service shutting down");
        runtime->serialQueue().sync([] { runtime->releaseTapsThenStop(); });
        server->stop();
        _exit(0);
    });
    termination->resume();
    try {
        server->start();
    } catch (const std::exception& e) {
        Log::info(std::string("Tonavi control server failed to start: ") + e.what());
        // Leave the way a stop does: the runtime's queues are still at work, and returning would run
        // the static destructors under them.
        runtime->serialQueue().sync([] { runtime->releaseTapsThenStop(); });
        _exit(1);
    }

    Log::info("Tonavi service ready");
    DispatchQueue::runMain();
}
