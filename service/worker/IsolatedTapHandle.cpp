#include "service/worker/IsolatedTapHandle.hpp"

#include "service/worker/TapWorkerEnvelope.hpp"

namespace tonavi {

bool IsolatedTapHandle::sendState(const TapWorkerState& state) {
    if (!process)
        return false;
    try {
        return process->sendLatest(TapWorkerEnvelope::makeState(state).line());
    } catch (const std::exception&) {
        return false; // a state that cannot be encoded is not sent
    }
}

bool IsolatedTapHandle::sendStop() {
    return process && process->sendFinal(TapWorkerEnvelope::makeStop().line());
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
