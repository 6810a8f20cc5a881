#include "tools/tevrolctl/observer.h"

#include <algorithm>

namespace tevrolctl {
namespace {

std::string Text(const gchar* text) {
    return text == nullptr ? "" : text;
}

std::string Opposite(const std::string& role) {
    return role == kClient ? kService : kClient;
}

std::string Type(GDBusMessage* message) {
    return Text(g_dbus_message_get_signature(message));
}

bool HasPayloadType(GDBusMessage* message) {
    return Type(message) == "ay";
}

tevrol::Bytes Payload(GDBusMessage* message) {
    GVariant* bytes = g_variant_get_child_value(g_dbus_message_get_body(message), 0);
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(bytes, &size, 1));
    tevrol::Bytes payload;
    if (size > 0) {
        payload.assign(data, data + size);
    }
    g_variant_unref(bytes);
    return payload;
}

std::string FirstText(GDBusMessage* message) {
    return Text(g_dbus_message_get_arg0(message));
}

std::string ChannelOf(GDBusMessage* message) {
    const std::string path = Text(g_dbus_message_get_path(message));
    const std::string prefix = ObjectPath("");
    return path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : "";
}

std::string Key(const std::string& channel, const std::string& role, const std::string& stage) {
    return HandshakeName(channel, role, stage);
}

}  // namespace

void Observer::Take(GDBusMessage* message, gint64 time) {
    const bool of_channel = Text(g_dbus_message_get_interface(message)) == kInterface;
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            if (of_channel) {
                TakeNotification(message, time);
            } else if (Text(g_dbus_message_get_sender(message)) == kDriver &&
                       Text(g_dbus_message_get_member(message)) == "NameOwnerChanged" &&
                       Type(message) == "sss") {
                TakeOwnerChange(message, time);
            }
            return;
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            TakeCall(message, time);
            return;
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            TakeReply(message, time);
            return;
        default:
            return;
    }
}

// ---- Names ----

void Observer::TakeOwnerChange(GDBusMessage* message, gint64 time) {
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(g_dbus_message_get_body(message), "(&s&s&s)", &name, &old_owner, &new_owner);
    if (*name == ':') {
        if (*new_owner == '\0') {
            TakeVanished(old_owner, time);
        }
        return;
    }
    const auto announcement = ParseHandshakeName(name);
    if (!announcement) {
        return;
    }
    Event event;
    event.time = time;
    event.channel = announcement->channel;
    event.role = announcement->role;
    event.stage = announcement->stage;
    if (*new_owner != '\0') {
        event.kind = "owned";
        event.from = new_owner;
        m_owned_since[name] = time;
        m_report(event);
        return;
    }
    event.kind = "released";
    event.from = old_owner;
    event.to = Peer(event.channel, event.role);
    const auto since = m_owned_since.find(name);
    if (since != m_owned_since.end()) {
        event.duration = time - since->second;
        m_owned_since.erase(since);
    }
    m_report(event);
    TakeAnnouncement(event);
}

std::string Observer::Peer(const std::string& channel, const std::string& role) {
    for (const auto& [process, member] : m_channels[channel]) {
        if (member.role == Opposite(role)) {
            return process;
        }
    }
    return {};
}

// Who announces SYN_ACK has bound the other end's last announcer of SYN, and who announces ACK that
// of SYN_ACK. More cannot be told from outside.
void Observer::TakeAnnouncement(const Event& announced) {
    Member& member = m_channels[announced.channel][announced.from];
    member.role = announced.role;
    const std::string own_key = Key(announced.channel, announced.role, announced.stage);
    m_last_announcer[own_key] = announced.from;
    const std::string opposite = Opposite(announced.role);
    if (announced.stage == kSyn) {
        member.syn_time = announced.time;
    } else if (member.partner.empty()) {
        const char* heard = announced.stage == kSynAck ? kSyn : kSynAck;
        Bind(announced, m_last_announcer[Key(announced.channel, opposite, heard)]);
    }
    if (announced.stage == kAck) {
        CompleteIfBound(announced);
    }
}

void Observer::Bind(const Event& announced, const std::string& partner) {
    Members& members = m_channels[announced.channel];
    if (members.count(partner) == 0) {
        return;  // gone, or its announcement was not seen
    }
    members[announced.from].partner = partner;
    Event event = announced;
    event.kind = "bound";
    event.to = partner;
    event.duration = 0;
    m_report(event);
}

void Observer::CompleteIfBound(const Event& announced) {
    Members& members = m_channels[announced.channel];
    Member& last = members[announced.from];
    if (last.partner.empty()) {
        return;
    }
    Member& first = members[last.partner];
    if (last.ready || first.partner != announced.from) {
        return;
    }
    last.ready = first.ready = true;
    Event event = announced;
    event.kind = "ready";
    event.to = last.partner;
    // The SYN that led here is the first announcer's, or this one's own.
    const gint64 start = announced.time - std::max(last.syn_time, first.syn_time);
    event.duration = std::max(last.syn_time, first.syn_time) == 0 ? 0 : start;
    m_report(event);
}

void Observer::TakeVanished(const std::string& process, gint64 time) {
    for (auto& [channel, members] : m_channels) {
        const auto gone = members.find(process);
        if (gone == members.end()) {
            continue;
        }
        Event event;
        event.kind = "lost";
        event.time = time;
        event.channel = channel;
        event.from = process;
        event.role = gone->second.role;
        event.to = gone->second.partner;
        members.erase(gone);
        for (auto& [other, member] : members) {
            if (member.partner == process) {
                event.to = other;
                member = {member.role, "", false, 0};
            }
        }
        m_report(event);
    }
}

// ---- Messages ----

Event Observer::Incoming(GDBusMessage* message, const char* kind, gint64 time) {
    Event event;
    event.kind = kind;
    event.time = time;
    event.channel = ChannelOf(message);
    event.from = Text(g_dbus_message_get_sender(message));
    event.to = Text(g_dbus_message_get_destination(message));
    const Members& members = m_channels[event.channel];
    const auto member = members.find(event.from);
    event.role = member == members.end() ? "" : member->second.role;
    if (HasPayloadType(message)) {
        event.payload = Payload(message);
    } else {
        event.kind = "malformed";
        event.text = std::string(kind) + " of type \"" + Type(message) + "\"";
    }
    return event;
}

void Observer::TakeNotification(GDBusMessage* message, gint64 time) {
    if (!ChannelOf(message).empty()) {
        m_report(Incoming(message, "notification", time));
    }
}

void Observer::TakeCall(GDBusMessage* message, gint64 time) {
    const Call call = {Text(g_dbus_message_get_sender(message)),
                       g_dbus_message_get_serial(message)};
    if (Text(g_dbus_message_get_interface(message)) == kInterface) {
        if (!ChannelOf(message).empty()) {
            m_requests[call] = Incoming(message, "request", time);
            m_report(m_requests[call]);
        }
        return;
    }
    const auto announcement = ParseHandshakeName(FirstText(message));
    if (announcement && Text(g_dbus_message_get_member(message)) == "RequestName") {
        m_name_requests[call] = *announcement;
    }
}

void Observer::TakeReply(GDBusMessage* message, gint64 time) {
    const Call call = {Text(g_dbus_message_get_destination(message)),
                       g_dbus_message_get_reply_serial(message)};
    const bool failed = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR;
    const std::string error =
        failed ? Text(g_dbus_message_get_error_name(message)) + ": " + FirstText(message) : "";
    const auto request = m_requests.find(call);
    if (request != m_requests.end()) {
        Event event = failed ? request->second : Incoming(message, "reply", time);
        event.kind = failed ? "error" : event.kind;
        event.text = failed ? error : event.text;
        event.payload = failed ? tevrol::Bytes() : event.payload;
        event.time = time;
        event.channel = request->second.channel;
        event.from = request->second.to;
        event.to = request->second.from;
        event.role = Opposite(request->second.role);
        event.duration = time - request->second.time;
        m_requests.erase(request);
        m_report(event);
        return;
    }
    const auto name = m_name_requests.find(call);
    if (name == m_name_requests.end()) {
        return;
    }
    guint32 code = 0;
    if (Type(message) == "u") {
        g_variant_get(g_dbus_message_get_body(message), "(u)", &code);
    }
    if (code != 1) {
        Event event;
        event.kind = "refused";
        event.time = time;
        event.channel = name->second.channel;
        event.role = name->second.role;
        event.stage = name->second.stage;
        event.from = call.first;
        event.text = failed ? error : "another process owns it (" + std::to_string(code) + ")";
        m_report(event);
    }
    m_name_requests.erase(name);
}

}  // namespace tevrolctl
