#pragma once
// The PipeWire side of one process tap: a private virtual sink (a capture stream whose
// media.class is Audio/Sink) that the tapped applications' streams are moved into. Nothing reads
// it until an IO proc on an aggregate holding the tap dequeues its buffers each cycle.

#include <cstdint>
#include <string>

struct pw_stream;

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

  private:
    PipeWireConnection& connection_;
    std::string nodeName_;
    std::string description_;
    std::string group_;
    std::uint32_t channels_;
    std::uint32_t rate_;
    pw_stream* stream_ = nullptr;
};

} // namespace tonavi
