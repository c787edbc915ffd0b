#include "core/outputs/VerifiedOutputSwitch.hpp"

#include <memory>

namespace tonavi::VerifiedOutputSwitch {

namespace {

bool isTarget(const std::optional<std::string>& uid, const std::string& target) {
    return uid && *uid == target;
}

struct AsyncSwitch {
    std::string target;
    std::function<bool()> request;
    CurrentUID currentUID;
    std::function<bool()> isCurrent;
    Schedule schedule;
    std::function<void(bool)> completion;
};

void pollAsync(const std::shared_ptr<AsyncSwitch>& s, int remaining) {
    if (!s->isCurrent())
        return s->completion(false);
    if (isTarget(s->currentUID(), s->target))
        return s->completion(true);
    if (remaining - 1 >= 1)
        return s->schedule([s, remaining] { pollAsync(s, remaining - 1); });
    s->completion(false);
}

struct NonblockingSwitch {
    std::string target;
    std::function<void(std::function<void(bool)>)> request;
    std::function<void(std::function<void(std::optional<std::string>)>)> currentUID;
    std::function<bool()> isCurrent;
    Schedule schedule;
    std::function<void(bool)> completion;
};

void pollNonblocking(const std::shared_ptr<NonblockingSwitch>& s, int remaining) {
    if (!s->isCurrent())
        return s->completion(false);
    s->currentUID([s, remaining](std::optional<std::string> uid) {
        if (!s->isCurrent())
            return s->completion(false);
        if (isTarget(uid, s->target))
            return s->completion(true);
        if (remaining >= 1)
            return s->schedule([s, remaining] { pollNonblocking(s, remaining - 1); });
        s->completion(false);
    });
}

} // namespace

bool perform(const std::string& targetUID, int attempts, const std::function<bool()>& request,
             const CurrentUID& currentUID, const std::function<void()>& wait) {
    if (targetUID.empty() || attempts < 1)
        return false;
    if (isTarget(currentUID(), targetUID))
        return true;
    if (!request())
        return false;
    if (isTarget(currentUID(), targetUID))
        return true;
    for (int i = 0; i < attempts; ++i) {
        wait();
        if (isTarget(currentUID(), targetUID))
            return true;
    }
    return false;
}

void performAsync(const std::string& targetUID, int attempts, const std::function<bool()>& request,
                  const CurrentUID& currentUID, const std::function<bool()>& isCurrent,
                  const Schedule& schedule, const std::function<void(bool)>& completion) {
    if (targetUID.empty() || attempts < 1 || !isCurrent())
        return completion(false);
    if (isTarget(currentUID(), targetUID))
        return completion(true);
    if (!request() || !isCurrent())
        return completion(false);
    if (isTarget(currentUID(), targetUID))
        return completion(true);
    auto s = std::make_shared<AsyncSwitch>(
        AsyncSwitch{targetUID, request, currentUID, isCurrent, schedule, completion});
    schedule([s, attempts] { pollAsync(s, attempts); });
}

void performNonblocking(
    const std::string& targetUID, int attempts, const std::function<void(std::function<void(bool)>)>& request,
    const std::function<void(std::function<void(std::optional<std::string>)>)>& currentUID,
    const std::function<bool()>& isCurrent, const Schedule& schedule,
    const std::function<void(bool)>& completion) {
    if (targetUID.empty() || attempts < 1 || !isCurrent())
        return completion(false);
    auto s = std::make_shared<NonblockingSwitch>(
        NonblockingSwitch{targetUID, request, currentUID, isCurrent, schedule, completion});
    s->request([s, attempts](bool requested) {
        if (!s->isCurrent() || !requested)
            return s->completion(false);
        pollNonblocking(s, attempts);
    });
}

std::string failureText(const std::string& targetName, const std::string& currentName) {
    return "macOS did not switch to " + targetName + "; output remains on " + currentName;
}

} // namespace tonavi::VerifiedOutputSwitch
