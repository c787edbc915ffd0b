#pragma once
// Which side of a device a client's text may name.

namespace tonavi {

enum class AudioEndpointRole { output, input, any };

} // namespace tonavi
