// The application directory's side of TonaviRuntime: the installed and running app lists, and the
// memory of which installed apps were ever heard.

#include "service/RuntimeCallbacks.hpp"
#include "service/TonaviRuntime.hpp"

#include "core/engine/TonaviTapSafety.hpp"
#include "core/lists/AppListPolicy.hpp"
#include "core/wire/TonaviPayload.hpp"
#include "service/PayloadReply.hpp"

#include <cassert>

namespace tonavi {

bool TonaviRuntime::handleDirectoryAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion) {
    if (!std::holds_alternative<TonaviRequest::ListInstalledApps>(request.value))
        return false;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    appDirectory_->installedAppsAsync([weak, completion = std::move(completion)](std::vector<InstalledApp> apps) {
        withRuntime(weak, [&](TonaviRuntime& rt) {
            rt.serialQueue_->async([weak, completion, apps = std::move(apps)]() mutable {
                withRuntime(weak, [&](TonaviRuntime& rt) { completion(rt.installedAppsReply(std::move(apps))); });
            });
        });
    });
    return true;
}

TonaviReply TonaviRuntime::installedAppsReply(std::vector<InstalledApp> apps) const {
    // An app that was heard can make sound, whatever its desktop entry says.
    const auto& heard = engine_->config().historicallyAudibleAppIDs;
    for (auto& app : apps)
        if (std::find(heard.begin(), heard.end(), app.id) != heard.end())
            app.audioCapable = true;
    return payloadReply(apps);
}

TonaviReply TonaviRuntime::runningAudioAppsReply() const {
    std::vector<RunningApp> apps;
    for (const auto& p : audioProcessSnapshot_) {
        RunningApp app{p.bundleID, p.pid, p.isRunning, std::nullopt};
        if (auto seconds = recency_->secondsSince(p.bundleID); seconds && *seconds <= runningAppsRecencyWindow)
            app.secondsSinceAudio = *seconds;
        apps.push_back(std::move(app));
    }
    return payloadReply(apps);
}

void TonaviRuntime::rememberAudibleInstalledApps() {
    assert(serialQueue_->isCurrent());
    std::set<std::string> installed;
    for (const auto& app : appDirectory_->presentationApps())
        installed.insert(app.id);
    std::vector<std::string> heard;
    for (const auto& [id, activity] : resolvedAudioSnapshot_)
        if ((activity.playing || activity.capturing) && installed.contains(id) &&
            TonaviTapSafety::mayCapture(id) && !AppListPolicy::isCaptureOnly(id))
            heard.push_back(id);

    TonaviConfig config = engine_->config();
    bool changed = !heard.empty() && config.rememberAudibleApps(heard);
    const double t = now();
    // A time is refreshed only when it is old, so a playing app does not rewrite the file every snapshot.
    for (const auto& id : heard) {
        auto stored = config.audibleAppLastHeardAt.find(id);
        if (stored == config.audibleAppLastHeardAt.end() || t - stored->second >= lastHeardRefreshSeconds) {
            config.audibleAppLastHeardAt[id] = t;
            changed = true;
        }
    }
    changed |= std::erase_if(config.audibleAppLastHeardAt,
                             [&](const auto& entry) { return t - entry.second > lastHeardForgetSeconds; }) > 0;
    if (!changed)
        return;
    engine_->setConfigWithoutReconcile(config);
    try {
        saveConfigToDisk(config);
    } catch (const std::exception&) {
        // The memory is a convenience; the next change that saves writes it too.
    }
}

} // namespace tonavi
