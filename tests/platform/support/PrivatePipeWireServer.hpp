#pragma once
// A private PipeWire server for the tests of one binary: a session bus, pipewire, wireplumber and
// pipewire-pulse under a temporary XDG_RUNTIME_DIR, with null sinks "speakers" and "headphones" and
// a null source "microphone". Started on first use, stopped when the binary ends. This process's environment
// points at it (XDG_RUNTIME_DIR, PIPEWIRE_RUNTIME_DIR, DBUS_SESSION_BUS_ADDRESS), so that the
// backend, pw-* and pa* tools all find it.

#include <string>
#include <sys/types.h>
#include <vector>

namespace tonavi::test {

class PrivatePipeWireServer {
  public:
    // The running server, started on first call; nullptr with `why` when it cannot run here.
    static PrivatePipeWireServer* shared(std::string* why = nullptr);
    // True when the server could not start because its programs are not installed: the only
    // reason the tests may skip rather than fail.
    static bool programsMissing() { return missing_; }

    // Stops pipewire, wireplumber and pipewire-pulse (the bus stays), then starts them again.
    void stopAudio();
    bool startAudio(std::string& why);
    const std::string& folder() const { return folder_; }

    // Starts a program with this server's environment; output goes to a log in the folder.
    pid_t spawn(const std::vector<std::string>& argv, const std::string& logName);
    static void terminate(pid_t pid, int signal = 15);

    ~PrivatePipeWireServer();

  private:
    static inline bool missing_ = false;
    bool start(std::string& why);
    std::string folder_;
    pid_t bus_ = -1;
    std::vector<pid_t> audio_;
};

} // namespace tonavi::test
