#pragma once
// One connection to the PipeWire server of this user, on one pw_thread_loop ("tonavi-pipewire").
// It keeps a PipeWireGraph current from registry, info, param and metadata events; readers take a
// lock on the graph and never wait for the server. Losing the server empties the graph (every
// device is gone) and reconnects with backoff on the queue "tonavi.pipewire.reconnect"; the graph is
// rebuilt and the change handler fires again.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Dispatch.hpp"
#include "platform/pipewire/PipeWireGraph.hpp"

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;

namespace tonavi {

class PipeWireConnection {
  public:
    PipeWireConnection();
    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    // True when a server answers on the user's runtime folder (a connect attempt, then gone).
    static bool serverAnswers();

    // Connects and waits for the first complete graph; false with a reason when no server answers.
    bool start(std::string& error);

    // Called on the loop thread after every change of the graph, the connection's included. It
    // must only hand work on (it runs with the loop locked).
    void setChangeHandler(std::function<void()> handler);

    template <class F> auto read(F&& f) const {
        std::lock_guard<std::mutex> guard(graphMutex_);
        return f(graph_);
    }
    // Waits until pred holds on the graph or the time-out passes; never call it on the loop thread.
    bool waitUntil(const std::function<bool(const PipeWireGraph&)>& pred, std::chrono::milliseconds timeout);
    // One round trip to the server: everything sent before has been handled when it returns true.
    bool roundTrip(std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));

    // Object IDs of this process, never reused (PipeWire recycles its global IDs).
    AudioObjectID allocateID() { return nextID_.fetch_add(1); }

    // Writes channel volumes (linear) and/or mute into a node's Props. False when the node is unknown.
    bool setNodeProps(std::uint32_t globalID, const std::vector<float>* volumes, const bool* mute);
    // Sets (value non-null) or clears a key of the named metadata. False when the metadata is absent.
    bool setMetadata(const std::string& metadataName, std::uint32_t subject, const std::string& key,
                     const char* type, const char* value);

    // Loads a module into this process's context (so it ends with the process) and answers a
    // handle, 0 when the module refused the arguments. A module that ends by itself (its own link
    // to the server lost) is forgotten; unloading an unknown handle does nothing.
    std::uint64_t loadModule(const std::string& name, const std::string& arguments, std::string& error);
    void unloadModule(std::uint64_t handle);
    bool moduleLoaded(std::uint64_t handle) const;

    // Runs f on the caller's thread with the loop locked and the core of this connection
    // (nullptr while disconnected): streams are made and destroyed in there.
    void withCore(const std::function<void(pw_core*)>& f);
    // Returns once PipeWire's data thread has left whatever callback it was in: a pointer that a
    // realtime callback may have loaded is safe to drop after this. Any thread, lock held or not.
    void fenceDataThread();
    pw_thread_loop* threadLoop() const { return loop_; }

    struct Bound;

  private:
    friend struct PipeWireEvents;
    bool connectLocked(std::string& error);
    void disconnectLocked();
    void scheduleReconnect(std::chrono::milliseconds delay);
    void changedLocked(); // graphMutex_ held: renumbers processes and tells the handler
    void notifyChange();

    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_registry* registry_ = nullptr;
    struct Hooks;
    std::unique_ptr<Hooks> hooks_;
    std::map<std::uint32_t, std::unique_ptr<Bound>> bound_; // loop thread
    std::map<std::string, std::uint32_t> metadataByName_;   // loop thread
    struct Module;
    std::map<std::uint64_t, std::unique_ptr<Module>> modules_; // loop lock held
    std::uint64_t nextModule_ = 1;

    mutable std::mutex graphMutex_;
    std::condition_variable graphChanged_;
    PipeWireGraph graph_;
    int doneSeq_ = -1;

    std::atomic<AudioObjectID> nextID_{100};
    std::function<void()> changeHandler_;
    std::chrono::milliseconds backoff_{100};
    bool stopping_ = false;
    // Goes first when the connection ends: a pending retry is dropped, a running one waited for.
    std::unique_ptr<DispatchQueue> reconnectQueue_ =
        std::make_unique<DispatchQueue>("tonavi.pipewire.reconnect");
};

} // namespace tonavi
