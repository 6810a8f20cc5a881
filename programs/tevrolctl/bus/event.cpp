// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/event.h"

#include <json-glib/json-glib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <utility>

#include "devkit/glib.h"
#include "devkit/outside-text.h"
#include "programs/common/failure.h"

namespace programs {
namespace {

using Kind = Event::Kind;

constexpr std::array<std::pair<const char*, Kind>, 16> kKinds = {{
    {"owned", Kind::Owned},
    {"released", Kind::Released},
    {"refused", Kind::Refused},
    {"bound", Kind::Bound},
    {"ready", Kind::Ready},
    {"request", Kind::Request},
    {"reply", Kind::Reply},
    {"error", Kind::Error},
    {"notification", Kind::Notification},
    {"malformed", Kind::Malformed},
    {"lost", Kind::Lost},
    {"present", Kind::Present},
    {"active", Kind::Active},
    {"standby", Kind::Standby},
    {"direct", Kind::Direct},
    {"waiting", Kind::Waiting},
}};

constexpr std::array<std::pair<const char*, std::string Event::*>, 6> kTexts = {{
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
constexpr gint64 kLatest = gint64{253370764800} * G_USEC_PER_SEC;  // the year 9999
constexpr const char* kKind = "kind";
constexpr const char* kPayload = "hex";
constexpr const char* kSize = "size";
constexpr const char* kSerial = "serial";

Failure NoEvent(const std::string& why) {
    return Failure(kExitFailed, "no event: " + why);
}

// json-glib recurses for each level of nesting, until the stack ends. It also accepts comments, and
// a quotation mark in a comment begins no string. So only characters that JSON allows outside of
// strings may stand there.
void RequireShallow(const std::string& line) {
    constexpr int kDeepest = 32;
    constexpr const char* kMarks = " \t\r{}[]:,+-.";
    int depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char character = line[i];
        if (character == '"') {
            in_string = !in_string;
        } else if (in_string) {
            i += character == '\\' ? 1 : 0;
        } else if (g_ascii_isalnum(character) == FALSE && strchr(kMarks, character) == nullptr) {
            throw NoEvent("there is a character that JSON does not allow");
        } else if (character == '{' || character == '[') {
            ++depth;
        } else if (character == '}' || character == ']') {
            --depth;
        }
        if (depth > kDeepest) {
            throw NoEvent("it is nested too deeply");
        }
    }
}

JsonNode* Member(JsonObject* object, const char* name, GType type) {
    JsonNode* node = json_object_get_member(object, name);
    if (node != nullptr &&
        (!JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) != type)) {
        throw NoEvent(std::string("\"") + name + "\" is of another type");
    }
    return node;
}

Kind ReadKind(JsonObject* object) {
    if (JsonNode* node = Member(object, kKind, G_TYPE_STRING)) {
        const std::string given = json_node_get_string(node);
        for (const auto& [name, kind] : kKinds) {
            if (given == name) {
                return kind;
            }
        }
    }
    throw NoEvent("\"kind\" is missing or unknown");
}

void ReadNumber(JsonObject* object, const char* name, gint64& number) {
    if (JsonNode* node = Member(object, name, G_TYPE_INT64)) {
        number = json_node_get_int(node);
        if (number < 0 || number > kLatest) {
            throw NoEvent(std::string("\"") + name + "\" is out of range");
        }
    }
}

void Read(JsonObject* object, Event& event) {
    event.kind = ReadKind(object);
    for (const auto& [name, field] : kTexts) {
        if (JsonNode* node = Member(object, name, G_TYPE_STRING)) {
            event.*field = json_node_get_string(node);
        }
    }
    for (const auto& [name, field] : kNumbers) {
        ReadNumber(object, name, event.*field);
    }
    ReadNumber(object, kSerial, event.serial);
    if (JsonNode* node = Member(object, kPayload, G_TYPE_STRING)) {
        const auto payload = tevrol::FromHex(json_node_get_string(node));
        if (!payload) {
            throw NoEvent("\"hex\" holds no hexadecimal digits");
        }
        event.payload = *payload;
    }
    gint64 size = 0;
    ReadNumber(object, kSize, size);
    event.size = std::max(static_cast<std::size_t>(size), event.payload.size());
    if (event.channel.empty() || event.from.empty()) {
        throw NoEvent(R"("channel" or "from" is missing)");
    }
}

}  // namespace

const char* ToString(Kind kind) {
    for (const auto& [name, known] : kKinds) {
        if (kind == known) {
            return name;
        }
    }
    return "";
}

bool IsKind(const std::string& text) {
    return std::any_of(kKinds.begin(), kKinds.end(),
                       [&](const auto& known) { return text == known.first; });
}

bool HasPayload(const Event& event) {
    return event.kind == Kind::Request || event.kind == Kind::Reply ||
           event.kind == Kind::Notification;
}

std::string Label(const Event& event) {
    const std::string name = event.role + "_" + event.stage;
    switch (event.kind) {
        case Kind::Owned:
            return "owns " + name;
        case Kind::Released:
            return "announces " + name;
        case Kind::Refused:
            return "is refused " + name;
        case Kind::Lost:
            return event.to.empty() ? "leaves the bus" : "leaves";
        case Kind::Present:
            return "is there";
        case Kind::Active:
            return "is the active " + event.role;
        case Kind::Standby:
            return "stands by as " + event.role;
        case Kind::Direct:
            return "direct link";
        case Kind::Waiting:
            return "is bound and not ready";
        default:
            return ToString(event.kind);
    }
}

std::string ToJson(const Event& event) {
    JsonObject* object = json_object_new();
    for (const auto& [name, field] : kNumbers) {
        json_object_set_int_member(object, name, event.*field);
    }
    json_object_set_string_member(object, kKind, ToString(event.kind));
    for (const auto& [name, field] : kTexts) {
        if (!(event.*field).empty()) {
            const std::string valid =
                tevrol::TakeText(g_utf8_make_valid((event.*field).c_str(), -1));
            json_object_set_string_member(object, name, valid.c_str());
        }
    }
    if (HasPayload(event)) {
        json_object_set_int_member(object, kSize, static_cast<gint64>(event.size));
        json_object_set_string_member(object, kPayload, tevrol::ToHex(event.payload).c_str());
    }
    if (event.serial != 0) {
        json_object_set_int_member(object, kSerial, event.serial);
    }
    JsonNode* root = json_node_init_object(json_node_alloc(), object);
    json_object_unref(object);
    std::string line = tevrol::TakeText(json_to_string(root, FALSE));
    json_node_unref(root);
    return tevrol::PrintableJson(line);
}

Event FromJson(const std::string& line) {
    RequireShallow(line);
    GError* error = nullptr;
    const std::unique_ptr<JsonNode, decltype(&json_node_unref)> root(
        json_from_string(line.c_str(), &error), json_node_unref);
    if (error != nullptr) {
        throw NoEvent(tevrol::TakeMessage(error));
    }
    if (!root || !JSON_NODE_HOLDS_OBJECT(root.get())) {
        throw NoEvent("a line is no JSON object");
    }
    Event event;
    Read(json_node_get_object(root.get()), event);
    return event;
}

}  // namespace programs
