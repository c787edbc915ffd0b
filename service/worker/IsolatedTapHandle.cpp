#include "service/worker/IsolatedTapHandle.hpp"

#include "service/worker/TapWorkerEnvelope.hpp"

namespace tonavi {

bool IsolatedTapHandle::send(const TapWorkerEnvelope& envelope) {
    if (!process)
        return false;
    std::string line;
    try {
        line = envelope.line();
    } catch (const std::exception&) {
        return false;
    }
    std::lock_guard guard(writeLock);
    return process->write(line);
}

void IsolatedTapHandle::signalReady(std::optional<std::string> error) {
    std::lock_guard guard(protocolLock);
    if (readySignaled)
        return;
    readyError = std::move(error);
    readySignaled = true;
    ready.release();
}

} // namespace tonavi
