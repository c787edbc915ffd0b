#pragma once
// The provider of a service that cannot take taps: every creation fails, and says why once per
// app. Requests still change, persist and report the configuration; the engine records that
// control could not attach, and every app stays on its direct path.

#include "service/ServiceTapProvider.hpp"

#include <mutex>
#include <set>
#include <string>

namespace tonavi {

class UnavailableTapProvider final : public ServiceTapProvider {
  public:
    explicit UnavailableTapProvider(std::string reason);

    TapHandlePtr createTap(const std::string& bundleID) override;
    void destroyTap(const TapHandlePtr& handle) override;
    void setHooks(Hooks hooks) override;

  private:
    const std::string reason_;
    std::mutex lock_; // leaf: guards reported_
    std::set<std::string, std::less<>> reported_;
};

} // namespace tonavi
