#include "service/TonaviRuntime.hpp"

#include <cassert>
#include <cstdlib>

namespace tonavi {

TonaviRuntime::TonaviRuntime(std::string version) : version_(std::move(version)) {}

std::string TonaviRuntime::versionFromEnvironment() {
    const char* v = std::getenv("TONAVI_APP_VERSION");
    return v ? std::string(v) : std::string("development");
}

void TonaviRuntime::handleAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion) {
    completion(handle(request));
}

TonaviReply TonaviRuntime::handle(const TonaviRequest& request) {
    return serialQueue_.syncResult([&] { return handleLocked(request); });
}

TonaviReply TonaviRuntime::handleLocked(const TonaviRequest& request) {
    assert(serialQueue_.isCurrent());
    return std::visit(
        [&](const auto& c) -> TonaviReply {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, TonaviRequest::Ping>) {
                // No status: ping must answer while the service is still warming up.
                return TonaviReply::success("tonavi " + version_);
            } else {
                return TonaviReply::failure("tonavi: \"" + std::string(request.caseName()) + "\" is not handled by this service.");
            }
        },
        request.value);
}

void TonaviRuntime::releaseTapsThenStop() {
    assert(serialQueue_.isCurrent());
    // Nothing is held yet: no configuration is loaded and no tap exists in this runtime.
}

}  // namespace tonavi
