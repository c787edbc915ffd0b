// The paths that hand audio back to the operating system, and the health log that records them.

#include "core/engine/EngagementEngine.hpp"

#include "base/Encoding.hpp"

namespace tonavi {

void EngagementEngine::log(const std::string& kind, const std::string& detail) {
    HealthEvent event{makeUUID(), now(), kind, detail};
    {
        std::lock_guard guard(healthLock_);
        healthLog_.push_back(event);
        while (healthLog_.size() > healthLogCapacity)
            healthLog_.pop_front();
    }
    changed();
    if (onHealthEvent_)
        onHealthEvent_(event);
}

std::vector<HealthEvent> EngagementEngine::healthLog() const {
    std::lock_guard guard(healthLock_);
    return {healthLog_.begin(), healthLog_.end()};
}

void EngagementEngine::setStageMode(bool on) {
    // The flag is written before the hold that removes handles, so a concurrent reconcile that
    // re-asks wantsTapLocked cannot put one back.
    stageFlag_.store(on);
    changed();
    std::vector<TapHandlePtr> handles;
    int mutedCount = 0;
    {
        std::lock_guard guard(lock_);
        config_.stageModePersisted = on;
        if (on) {
            soloAppIDs_.reset();
            std::vector<std::string> ids;
            for (const auto& entry : tapHandles_)
                ids.push_back(entry.first);
            for (const auto& id : ids) {
                if (holdsMuteLocked(id))
                    ++mutedCount;
                if (auto handle = removeTapEntriesLocked(id, false))
                    handles.push_back(std::move(handle));
                failingTaps_.erase(id);
            }
        }
    }
    if (on) {
        taps_->destroyTaps(handles);
        std::string detail = "engaged: every app tap released to the OS direct path";
        if (mutedCount > 0)
            detail += ", including " + std::to_string(mutedCount) +
                      " muted app(s), which are audible until bypass ends";
        log("stage-mode", detail);
        return;
    }
    log("stage-mode", "released");
    requestReconcile();
}

void EngagementEngine::releaseAllTapsForShutdown() {
    shutdownFlag_.store(true);
    std::vector<TapHandlePtr> handles;
    {
        std::lock_guard guard(lock_);
        std::vector<std::string> ids;
        for (const auto& entry : tapHandles_)
            ids.push_back(entry.first);
        for (const auto& id : ids) {
            if (auto handle = removeTapEntriesLocked(id, false))
                handles.push_back(std::move(handle));
            failingTaps_.erase(id);
        }
    }
    taps_->destroyTaps(handles);
    log("shutdown", handles.empty()
                        ? std::string("no taps to release")
                        : "released " + std::to_string(handles.size()) + " tap(s); audio returns to the OS");
}

void EngagementEngine::releaseTap(const std::string& bundleID, const std::string& reason,
                                  const TapHandlePtr& expectedHandle) {
    TapHandlePtr handle;
    {
        std::lock_guard guard(lock_);
        if (expectedHandle) {
            // A late death notice of a replaced handle must not take down its replacement.
            auto it = tapHandles_.find(bundleID);
            if (it == tapHandles_.end() || it->second != expectedHandle)
                return;
        }
        handle = removeTapEntriesLocked(bundleID, true);
    }
    if (!handle)
        return;
    taps_->destroyTap(handle);
    log("tap-released", bundleID + " released: " + reason);
}

void EngagementEngine::autoRevert(const std::string& bundleID, const std::string& reason) {
    TapHandlePtr handle;
    {
        std::lock_guard guard(lock_);
        handle = removeTapEntriesLocked(bundleID, true);
        if (const AppAudioState* existing = configRowLocked(bundleID)) {
            AppAudioState row = *existing;
            row.volume = 1.0;
            row.muted = false;
            row.chain = kavore::ChainSettings::empty();
            row.redirectUID.clear();
            row.timedMuteUntil.reset();
            row.volumePerDevice.clear();
            upsertRowLocked(row);
        }
    }
    if (handle)
        taps_->destroyTap(handle);
    log("auto-revert", bundleID + " reverted to direct: " + reason);
}

void EngagementEngine::autoRevertAUSlot(const std::string& slotID, const std::string& reason) {
    std::optional<std::string> owner;
    bool systemSlot = false;
    {
        std::lock_guard guard(lock_);
        auto bypass = [&](std::vector<kavore::EffectSlot>& slots) {
            for (auto& slot : slots) {
                if (slot.id == slotID) {
                    slot.bypassed = true;
                    return true;
                }
            }
            return false;
        };
        for (auto& app : config_.apps) {
            if (bypass(app.chain.slots)) {
                owner = app.displayName;
                break;
            }
        }
        if (!owner && bypass(config_.systemRows.systemChain.slots)) {
            owner = "system output";
            systemSlot = true;
        }
        if (!owner && bypass(config_.globalListening.audioUnitSlots)) {
            owner = "global listening";
            recomputePluginSlotIDsLocked();
        }
    }
    if (!owner)
        return;
    log("au-crash", *owner + ": " + reason);
    // Chains pick up the bypass at the next pass; the system chain is not the engine's.
    if (!systemSlot)
        requestReconcile();
}

} // namespace tonavi
