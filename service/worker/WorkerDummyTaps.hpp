#pragma once
// The tap provider of a worker's own engine. The engine opens its render gates only for an app with
// a handle, so it gets plain ones; the real tap belongs to the TonaviTapProvider beside it.

#include "core/engine/TapProviding.hpp"

namespace tonavi {

class WorkerDummyTaps final : public TapProviding {
  public:
    TapHandlePtr createTap(const std::string&) override { return std::make_shared<TapHandle>(); }
    void destroyTap(const TapHandlePtr&) override {}
    void retireReplacedTap(const TapHandlePtr&) override {}
};

} // namespace tonavi
