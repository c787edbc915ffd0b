#include "core/config/SceneLoadPolicy.hpp"

#include <set>
#include <string>

namespace tonavi::SceneLoadPolicy {

namespace {

// The scene's entries in their order, then the base's entries whose id the scene does not have.
template <class T> std::vector<T> sceneThenRest(const std::vector<T>& scene, const std::vector<T>& onto) {
    std::set<std::string> ids;
    for (const auto& entry : scene)
        ids.insert(entry.id);
    std::vector<T> out = scene;
    for (const auto& entry : onto)
        if (!ids.count(entry.id))
            out.push_back(entry);
    return out;
}

} // namespace

TonaviConfig merge(const TonaviConfig& scene, const TonaviConfig& onto) {
    TonaviConfig out = onto;
    out.apps = sceneThenRest(scene.apps, onto.apps);
    out.locks = scene.locks;
    out.lanes = scene.lanes;
    out.duckRules = scene.duckRules;
    out.focusLinks = scene.focusLinks;
    out.groups = sceneThenRest(scene.groups, onto.groups);
    out.systemRows = scene.systemRows;
    out.customEQPresets = sceneThenRest(scene.customEQPresets, onto.customEQPresets);
    out.softMasterPercent = scene.softMasterPercent;
    out.softMasterMuted = scene.softMasterMuted;
    out.smart = scene.smart;
    return out;
}

} // namespace tonavi::SceneLoadPolicy
