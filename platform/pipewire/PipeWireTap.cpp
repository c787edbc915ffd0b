#include "platform/pipewire/PipeWireTap.hpp"

#include <pipewire/pipewire.h>

#include "platform/pipewire/PipeWireConnection.hpp"
#include "platform/pipewire/PipeWireFormat.hpp"

namespace tonavi {

PipeWireTap::PipeWireTap(PipeWireConnection& connection, std::string nodeName, std::string description,
                         std::string group, std::uint32_t channels, std::uint32_t rate)
    : connection_(connection), nodeName_(std::move(nodeName)), description_(std::move(description)),
      group_(std::move(group)), channels_(channels), rate_(rate) {}

PipeWireTap::~PipeWireTap() {
    connection_.withCore([this](pw_core*) {
        if (hook_)
            spa_hook_remove(hook_.get());
        if (stream_)
            pw_stream_destroy(stream_);
        stream_ = nullptr;
    });
}

void PipeWireTap::setConsumer(pw_stream* trigger, bool read) {
    trigger_.store(trigger, std::memory_order_release);
    read_.store(read, std::memory_order_release);
}

void PipeWireTap::process(void* data) {
    auto& self = *static_cast<PipeWireTap*>(data);
    // The IO's process runs inside this call, on this thread, with this cycle's buffer queued.
    if (pw_stream* io = self.trigger_.load(std::memory_order_acquire); io && pw_stream_trigger_process(io) >= 0)
        return;
    if (self.read_.load(std::memory_order_acquire))
        return; // an IO triggered by another tap takes the newest buffer itself
    while (pw_buffer* b = pw_stream_dequeue_buffer(self.stream_))
        pw_stream_queue_buffer(self.stream_, b);
}

bool PipeWireTap::start(std::string& error) {
    bool ok = false;
    connection_.withCore([&](pw_core* core) {
        if (!core) {
            error = "no PipeWire server";
            return;
        }
        // A sink of its own that only this tap's applications are moved into: never a default,
        // never a target the session manager picks for anyone else.
        pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CLASS, "Audio/Sink",
                                                 PW_KEY_NODE_NAME, nodeName_.c_str(), PW_KEY_NODE_DESCRIPTION,
                                                 description_.c_str(), PW_KEY_NODE_GROUP, group_.c_str(),
                                                 PW_KEY_NODE_VIRTUAL, "true", PW_KEY_PRIORITY_SESSION, "-1",
                                                 PW_KEY_PRIORITY_DRIVER, "0", "tonavi.tap", "true", nullptr);
        stream_ = pw_stream_new(core, nodeName_.c_str(), props);
        if (!stream_) {
            error = "the tap's sink could not be made";
            return;
        }
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.process = &PipeWireTap::process;
            return e;
        }();
        hook_ = std::make_unique<spa_hook>();
        pw_stream_add_listener(stream_, hook_.get(), &events, this);
        std::uint8_t buffer[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* params[] = {buildFloatFormat(b, channels_, rate_)};
        const int res = pw_stream_connect(
            stream_, PW_DIRECTION_INPUT, PW_ID_ANY,
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS), params, 1);
        if (res < 0) {
            error = "the tap's sink could not connect";
            spa_hook_remove(hook_.get());
            hook_.reset();
            pw_stream_destroy(stream_);
            stream_ = nullptr;
            return;
        }
        ok = true;
    });
    return ok;
}

} // namespace tonavi
