#pragma once
// The seam between the engine and whatever really creates taps. The engine never looks inside a
// handle: it only stores it, compares it by identity, and gives it back to the provider.

#include <memory>
#include <string>
#include <vector>

namespace tonavi {

// Base of every provider's handle object. Identity (the pointer) is all the engine relies on.
class TapHandle {
  public:
    virtual ~TapHandle() = default;
};

using TapHandlePtr = std::shared_ptr<TapHandle>;

class TapProviding {
  public:
    virtual ~TapProviding() = default;

    // Blocking, may take seconds. Returns null on any failure.
    virtual TapHandlePtr createTap(const std::string& bundleID) = 0;
    // Blocking teardown; the app is back on its direct path when this returns.
    virtual void destroyTap(const TapHandlePtr& handle) = 0;
    // Teardown of a handle that a replacement already superseded. A provider may do it in the
    // background; by default it is a plain destroy.
    virtual void retireReplacedTap(const TapHandlePtr& handle);
    // Teardown of many handles at once; by default one after another, in order.
    virtual void destroyTaps(const std::vector<TapHandlePtr>& handles);
};

} // namespace tonavi
