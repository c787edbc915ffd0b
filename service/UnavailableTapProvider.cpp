#include "service/UnavailableTapProvider.hpp"

#include "base/Log.hpp"

namespace tonavi {

UnavailableTapProvider::UnavailableTapProvider(std::string reason) : reason_(std::move(reason)) {}

TapHandlePtr UnavailableTapProvider::createTap(const std::string& bundleID) {
    bool first = false;
    {
        std::lock_guard guard(lock_);
        first = reported_.insert(bundleID).second;
    }
    // Reconcile retries on every pass; one line per app says enough.
    if (first)
        Log::info("tonavi: cannot tap " + bundleID + ": " + reason_ + "; it stays on the direct path");
    return nullptr;
}

void UnavailableTapProvider::destroyTap(const TapHandlePtr&) {}

void UnavailableTapProvider::setHooks(Hooks) {}

} // namespace tonavi
