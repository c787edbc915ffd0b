// JSON codecs of the control socket's request and reply.

#include "core/wire/TonaviReply.hpp"
#include "core/wire/TonaviRequest.hpp"
#include "core/wire/WireError.hpp"

#include <nlohmann/json.hpp>

namespace tonavi {

using nlohmann::json;

namespace {
json parseObject(std::string_view text) {
    json value;
    try {
        value = json::parse(text.begin(), text.end());
    } catch (const json::exception& e) {
        throw WireDecodingError(std::string("The given data was not valid JSON: ") + e.what());
    }
    if (!value.is_object()) throw WireDecodingError("Expected to decode an object but found something else.");
    return value;
}

// The one key of a sum type's object, and the object it holds.
std::pair<std::string, const json*> singleCase(const json& object) {
    if (object.size() != 1) throw WireDecodingError("Invalid number of keys found, expected one.");
    auto it = object.begin();
    if (!it.value().is_object()) {
        throw WireDecodingError("Expected an object of fields for \"" + it.key() + "\".");
    }
    return {it.key(), &it.value()};
}
}  // namespace

std::string_view TonaviRequest::caseName() const {
    return std::visit(
        [](const auto& c) -> std::string_view {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, Ping>) return "ping";
        },
        value);
}

std::string encodeRequest(const TonaviRequest& request) {
    json fields = json::object();
    // Cases with fields fill `fields` here as they are added.
    json out = json::object();
    out[std::string(request.caseName())] = std::move(fields);
    return out.dump();
}

TonaviRequest decodeRequest(std::string_view text) {
    json object = parseObject(text);
    auto [name, fields] = singleCase(object);
    (void)fields;
    if (name == "ping") return TonaviRequest::ping();
    throw WireDecodingError("Cannot initialize TonaviRequest from invalid case \"" + name + "\".");
}

TonaviRequest decodeRequest(std::span<const std::uint8_t> bytes) {
    return decodeRequest(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::string encodeReply(const TonaviReply& reply) {
    json out = json::object();
    out["ok"] = reply.ok;
    out["message"] = reply.message;
    if (reply.payload) out["payload"] = base64Encode(*reply.payload);
    try {
        return out.dump();
    } catch (const json::exception& e) {
        throw WireEncodingError(e.what());
    }
}

TonaviReply decodeReply(std::string_view text) {
    json object = parseObject(text);
    TonaviReply reply;
    auto ok = object.find("ok");
    if (ok == object.end() || !ok->is_boolean()) throw WireDecodingError("Reply is missing \"ok\".");
    reply.ok = ok->get<bool>();
    auto message = object.find("message");
    if (message == object.end() || !message->is_string()) throw WireDecodingError("Reply is missing \"message\".");
    reply.message = message->get<std::string>();
    auto payload = object.find("payload");
    if (payload != object.end() && !payload->is_null()) {
        if (!payload->is_string()) throw WireDecodingError("Reply \"payload\" is not base64 text.");
        auto bytes = base64Decode(payload->get<std::string>());
        if (!bytes) throw WireDecodingError("Reply \"payload\" is not valid base64.");
        reply.payload = std::move(*bytes);
    }
    return reply;
}

}  // namespace tonavi
