#pragma once
// The PipeWire side of one process tap: a private virtual sink (a capture stream whose
// media.class is Audio/Sink) that the tapped applications' streams are moved into.
//
// The IO proc that renders the tap has no input of its own in the graph, so PipeWire would run it
// at the start of a cycle, before this sink has received the cycle's samples: the tapped sound
// would come a whole quantum late. Instead the IO stream is only ever triggered, and this sink's
// process triggers it once the cycle's samples are here, so the IO renders them in the same
// cycle. A sink nobody renders hands its buffers straight back, so that it never backs up.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct pw_stream;
struct spa_hook;

namespace tonavi {

class PipeWireConnection;

class PipeWireTap {
  public:
    // nodeName is the sink's node.name; group the node.group it is scheduled with.
    PipeWireTap(PipeWireConnection& connection, std::string nodeName, std::string description,
                std::string group, std::uint32_t channels, std::uint32_t rate);
    ~PipeWireTap();
    PipeWireTap(const PipeWireTap&) = delete;
    PipeWireTap& operator=(const PipeWireTap&) = delete;

    bool start(std::string& error);
    const std::string& nodeName() const { return nodeName_; }
    const std::string& group() const { return group_; }
    std::uint32_t channels() const { return channels_; }
    // Loop or data thread only.
    pw_stream* stream() const { return stream_; }
    // The IO stream to trigger when this sink's samples of a cycle are in (none: nobody renders
    // this tap), and whether some IO reads this sink's buffers at all. Set with the loop locked;
    // read on the data thread. Clearing is complete only once the data thread has left this
    // sink's process (`PipeWireConnection::fenceDataThread`).
    void setConsumer(pw_stream* trigger, bool read);

    static void process(void* data); // the sink's process callback, on the data thread

  private:
    PipeWireConnection& connection_;
    std::string nodeName_;
    std::string description_;
    std::string group_;
    std::uint32_t channels_;
    std::uint32_t rate_;
    pw_stream* stream_ = nullptr;
    std::unique_ptr<spa_hook> hook_;
    std::atomic<pw_stream*> trigger_{nullptr};
    std::atomic<bool> read_{false};
};

} // namespace tonavi
