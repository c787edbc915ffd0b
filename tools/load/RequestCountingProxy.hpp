#pragma once
// A control socket in front of the service's that passes every request through and counts them by their
// case ("status", "setAppVolume", ...): what one client really sends, seen from outside the client.

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace tonavi {

class RequestCountingProxy {
  public:
    // Listens on `listenPath` (its folder is created) and forwards to `servicePath`. Throws
    // std::runtime_error when it cannot listen.
    RequestCountingProxy(std::string listenPath, std::string servicePath);
    ~RequestCountingProxy();
    RequestCountingProxy(const RequestCountingProxy&) = delete;
    RequestCountingProxy& operator=(const RequestCountingProxy&) = delete;

    std::map<std::string, std::size_t> counts() const;
    std::size_t count(const std::string& requestCase) const;

  private:
    void acceptLoop();
    void serve(int connection);

    std::string listenPath_;
    std::string servicePath_;
    int listener_ = -1;
    mutable std::mutex countsLock_; // guards counts_
    std::map<std::string, std::size_t> counts_;
    std::thread acceptor_; // "load.proxy": one connection at a time, as the service answers them
};

} // namespace tonavi
