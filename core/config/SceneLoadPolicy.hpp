#pragma once
// Recalling a saved scene is a merge, not a replacement: the scene decides how applications sound
// and are routed, and the machine keeps its hardware memory, appearance and history. Nothing the
// machine knows and the scene does not (an app, a group, a preset) is removed.

#include "core/config/TonaviConfig.hpp"

namespace tonavi::SceneLoadPolicy {

TonaviConfig merge(const TonaviConfig& scene, const TonaviConfig& onto);

} // namespace tonavi::SceneLoadPolicy
