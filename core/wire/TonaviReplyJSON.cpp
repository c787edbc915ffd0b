// JSON of the reply: "ok" and "message" always, "status" and "payload" (base64) only when present.

#include "core/wire/TonaviReply.hpp"
#include "core/wire/WireJSON.hpp"

namespace tonavi {

using WireJSON::json;

std::string encodeReply(const TonaviReply& reply) {
    json out = json::object();
    out["ok"] = reply.ok;
    out["message"] = reply.message;
    WireJSON::writeField(out, "status", reply.status);
    if (reply.payload)
        out["payload"] = base64Encode(*reply.payload);
    return WireJSON::finishText(out);
}

std::string encodeReplyOrFailure(const TonaviReply& reply) {
    try {
        return encodeReply(reply);
    } catch (const WireEncodingError& e) {
        return encodeReply(TonaviReply::failure(std::string("The reply could not be encoded: ") + e.what()));
    }
}

TonaviReply decodeReply(std::string_view text) {
    const json object = WireJSON::parseText(text);
    return WireJSON::withContext("TonaviReply", [&] {
        WireJSON::requireObject(object);
        TonaviReply reply;
        WireJSON::readField(object, "ok", reply.ok);
        WireJSON::readField(object, "message", reply.message);
        WireJSON::readField(object, "status", reply.status);
        std::optional<std::string> payload;
        WireJSON::readField(object, "payload", payload);
        if (payload) {
            auto bytes = base64Decode(*payload);
            if (!bytes)
                throw WireDecodingError("payload: not valid base64");
            reply.payload = std::move(*bytes);
        }
        return reply;
    });
}

} // namespace tonavi
