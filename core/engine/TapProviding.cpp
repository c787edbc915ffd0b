#include "core/engine/TapProviding.hpp"

namespace tonavi {

void TapProviding::retireReplacedTap(const TapHandlePtr& handle) {
    destroyTap(handle);
}

void TapProviding::destroyTaps(const std::vector<TapHandlePtr>& handles) {
    for (const auto& handle : handles)
        destroyTap(handle);
}

} // namespace tonavi
