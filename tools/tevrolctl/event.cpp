#include "tools/tevrolctl/event.h"

#include <json-glib/json-glib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "tools/tevrolctl/command-line.h"

namespace tevrolctl {
namespace {

constexpr std::array<const char*, 11> kKinds = {"malformed", "owned", "released",    "refused",
                                                "bound",     "ready", "request",     "reply",
                                                "error",     "lost",  "notification"};

constexpr std::array<std::pair<const char*, std::string Event::*>, 7> kTexts = {{
    {"kind", &Event::kind},
    {"channel", &Event::channel},
    {"from", &Event::from},
    {"to", &Event::to},
    {"role", &Event::role},
    {"stage", &Event::stage},
    {"text", &Event::text},
}};
constexpr std::array<std::pair<const char*, gint64 Event::*>, 2> kNumbers = {{
    {"time", &Event::time},
    {"duration", &Event::duration},
}};
constexpr const char* kPayload = "hex";

Failure NoEvent(const std::string& why) {
    return Failure(kExitFailed, "no event: " + why);
}

JsonNode* Member(JsonObject* object, const char* name, GType type) {
    JsonNode* node = json_object_get_member(object, name);
    if (node != nullptr &&
        (!JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) != type)) {
        throw NoEvent(std::string("\"") + name + "\" is of another type");
    }
    return node;
}

void Read(JsonObject* object, Event& event) {
    for (const auto& [name, field] : kTexts) {
        if (JsonNode* node = Member(object, name, G_TYPE_STRING)) {
            event.*field = json_node_get_string(node);
        }
    }
    for (const auto& [name, field] : kNumbers) {
        if (JsonNode* node = Member(object, name, G_TYPE_INT64)) {
            event.*field = json_node_get_int(node);
        }
    }
    if (JsonNode* node = Member(object, kPayload, G_TYPE_STRING)) {
        const auto payload = tevrol::FromHex(json_node_get_string(node));
        if (!payload) {
            throw NoEvent("\"hex\" holds no hexadecimal digits");
        }
        event.payload = *payload;
    }
    const bool known = std::find(kKinds.begin(), kKinds.end(), event.kind) != kKinds.end();
    if (!known || event.channel.empty() || event.from.empty()) {
        throw NoEvent(R"("kind", "channel" or "from" is missing or unknown)");
    }
}

}  // namespace

bool HasPayload(const Event& event) {
    return event.kind == "request" || event.kind == "reply" || event.kind == "notification";
}

std::string Label(const Event& event) {
    const std::string name = event.role + "_" + event.stage;
    if (event.kind == "owned") {
        return "owns " + name;
    }
    if (event.kind == "released") {
        return "announces " + name;
    }
    if (event.kind == "refused") {
        return "is refused " + name;
    }
    if (event.kind == "lost") {
        return event.to.empty() ? "leaves the bus" : "leaves";
    }
    return event.kind;
}

std::string ToJson(const Event& event) {
    JsonObject* object = json_object_new();
    for (const auto& [name, field] : kNumbers) {
        json_object_set_int_member(object, name, event.*field);
    }
    for (const auto& [name, field] : kTexts) {
        if (!(event.*field).empty()) {
            gchar* valid = g_utf8_make_valid((event.*field).c_str(), -1);
            json_object_set_string_member(object, name, valid);
            g_free(valid);
        }
    }
    if (HasPayload(event)) {
        json_object_set_int_member(object, "size", static_cast<gint64>(event.payload.size()));
        json_object_set_string_member(object, kPayload, tevrol::ToHex(event.payload).c_str());
    }
    JsonNode* root = json_node_init_object(json_node_alloc(), object);
    json_object_unref(object);
    gchar* text = json_to_string(root, FALSE);
    json_node_unref(root);
    std::string line = text;
    g_free(text);
    return line;
}

Event FromJson(const std::string& line) {
    GError* error = nullptr;
    const std::unique_ptr<JsonNode, decltype(&json_node_unref)> root(
        json_from_string(line.c_str(), &error), json_node_unref);
    if (error != nullptr) {
        throw NoEvent(TakeMessage(error));
    }
    if (!root || !JSON_NODE_HOLDS_OBJECT(root.get())) {
        throw NoEvent("a line is no JSON object");
    }
    Event event;
    Read(json_node_get_object(root.get()), event);
    return event;
}

}  // namespace tevrolctl
