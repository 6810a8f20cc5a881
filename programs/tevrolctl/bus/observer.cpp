// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/observer.h"

#include <algorithm>
#include <iterator>

namespace programs {
namespace {

std::string Text(const gchar* text) {
    return text == nullptr ? "" : text;
}

// Empty where `role` is not known.
std::string Opposite(const std::string& role) {
    return role.empty() ? "" : role == kClient ? kService : kClient;
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

std::string ErrorOf(GDBusMessage* message) {
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR
               ? Text(g_dbus_message_get_error_name(message))
               : "";
}

constexpr std::size_t kMostCalls = 10000;  // that wait for their reply
constexpr gint64 kLongWait = gint64{2} * G_USEC_PER_SEC;

}  // namespace

std::string Observer::Take(GDBusMessage* message, gint64 time) {
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            if (Text(g_dbus_message_get_interface(message)) == kInterface) {
                return TakeNotification(message, time);
            }
            if (Text(g_dbus_message_get_sender(message)) == kDriver &&
                Text(g_dbus_message_get_member(message)) == "NameOwnerChanged" &&
                Type(message) == "sss") {
                return TakeOwnerChange(message, time);
            }
            return {};
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            return TakeCall(message, time);
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            return TakeReply(message, time);
        default:
            return {};
    }
}

void Observer::TakePresent(const Event& present) {
    Member& member = m_channels[present.channel][present.from];
    member.role = member.role.empty() ? present.role : member.role;
    member.present = true;
    m_report(present);
}

// ---- Names ----

std::string Observer::TakeOwnerChange(GDBusMessage* message, gint64 time) {
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(g_dbus_message_get_body(message), "(&s&s&s)", &name, &old_owner, &new_owner);
    if (*name == ':') {
        return *new_owner == '\0' ? TakeVanished(old_owner, time) : "";
    }
    if (const auto announcement = ParseHandshakeName(name)) {
        TakeNameChange(*announcement, old_owner, new_owner, time);
        return announcement->channel;
    }
    if (const auto role = ParseRoleName(name)) {
        TakeRoleChange(*role, old_owner, new_owner, time);
        return role->channel;
    }
    return {};
}

void Observer::TakeNameChange(const Announcement& name, const std::string& old_owner,
                              const std::string& new_owner, gint64 time) {
    Event event;
    event.time = time;
    event.channel = name.channel;
    event.role = name.role;
    event.stage = name.stage;
    const std::string key = HandshakeName(name.channel, name.role, name.stage);
    if (!old_owner.empty()) {
        event.kind = Event::Kind::Released;
        event.from = old_owner;
        event.to = Peer(event.channel, old_owner, event.role);
        const auto since = m_owned_since.find(key);
        if (since != m_owned_since.end()) {
            event.duration = time - since->second;
            m_owned_since.erase(since);
        }
        Member& member = m_channels[event.channel][old_owner];
        if (event.stage == kSyn && ++member.syns > 1) {
            event.text = "number " + std::to_string(member.syns) + " in a row";
        }
        m_report(event);
        TakeAnnouncement(event);
    }
    if (!new_owner.empty()) {
        Event owned;
        owned.kind = Event::Kind::Owned;
        owned.time = time;
        owned.channel = name.channel;
        owned.role = name.role;
        owned.stage = name.stage;
        owned.from = new_owner;
        m_owned_since[key] = time;
        m_report(owned);
    }
}

void Observer::TakeRoleChange(const Announcement& name, const std::string& old_owner,
                              const std::string& new_owner, gint64 time) {
    if (new_owner.empty()) {
        return;
    }
    Event event;
    event.kind = Event::Kind::Active;
    event.time = time;
    event.channel = name.channel;
    event.role = name.role;
    event.from = new_owner;
    event.text = old_owner.empty() ? "" : "takes over from " + old_owner;
    m_channels[event.channel][new_owner].role = name.role;
    m_report(event);
}

std::string Observer::Peer(const std::string& channel, const std::string& process,
                           const std::string& role) {
    const Members& members = m_channels[channel];
    const auto own = members.find(process);
    if (own != members.end() && !own->second.partner.empty()) {
        return own->second.partner;
    }
    for (const auto& [other, member] : members) {
        if (member.role == Opposite(role) && other != process) {
            return other;
        }
    }
    return {};
}

std::string Observer::LastAnnouncer(const std::string& channel, const std::string& role,
                                    const std::string& stage) const {
    const auto last = m_last_announcer.find(HandshakeName(channel, role, stage));
    return last == m_last_announcer.end() ? "" : last->second;
}

// A process that announces SYN_ACK has bound the other end's last announcer of SYN. One that
// announces ACK has bound the last announcer of SYN_ACK. An observer cannot tell more.
void Observer::TakeAnnouncement(const Event& announced) {
    Member& member = m_channels[announced.channel][announced.from];
    if (!member.role.empty() && member.role != announced.role) {
        return;  // it has only kept the name from the other end
    }
    member.role = announced.role;
    m_last_announcer[HandshakeName(announced.channel, announced.role, announced.stage)] =
        announced.from;
    if (announced.stage == kSyn) {
        member.syn_time = announced.time;
    } else if (member.partner.empty()) {
        const char* heard = announced.stage == kSynAck ? kSyn : kSynAck;
        Bind(announced, LastAnnouncer(announced.channel, Opposite(announced.role), heard));
    }
    if (announced.stage == kAck) {
        CompleteIfBound(announced);
    }
}

void Observer::Bind(const Event& announced, const std::string& partner) {
    Members& members = m_channels[announced.channel];
    if (members.count(partner) == 0 || partner == announced.from) {
        return;  // gone, or its announcement was not seen
    }
    Member& member = members[announced.from];
    member.partner = partner;
    member.bound_since = announced.time;
    Event event = announced;
    event.kind = Event::Kind::Bound;
    event.to = partner;
    event.duration = 0;
    event.text.clear();
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
    last.syns = first.syns = 0;
    Event event = announced;
    event.kind = Event::Kind::Ready;
    event.to = last.partner;
    event.text.clear();
    // The handshake began with the later SYN of the two.
    const gint64 start = announced.time - std::max(last.syn_time, first.syn_time);
    event.duration = std::max(last.syn_time, first.syn_time) == 0 ? 0 : start;
    m_report(event);
}

void Observer::LookForWaiting(gint64 now) {
    for (auto& [channel, members] : m_channels) {
        for (auto& [process, member] : members) {
            const bool is_long = now - member.bound_since > kLongWait;
            if (member.partner.empty() || member.ready || member.waits || !is_long ||
                member.bound_since == 0) {
                continue;
            }
            member.waits = true;
            const auto other = members.find(member.partner);
            const bool mutual = other != members.end() && other->second.partner == process;
            Event event;
            event.kind = Event::Kind::Waiting;
            event.time = now;
            event.channel = channel;
            event.from = process;
            event.to = member.partner;
            event.role = member.role;
            event.duration = now - member.bound_since;
            event.text = mutual ? "each waits for the other's ACK"
                                : "the other end has not answered, or is bound to another";
            m_report(event);
        }
    }
}

std::string Observer::TakeVanished(const std::string& process, gint64 time) {
    std::string of;
    Forget(process);
    for (auto& [channel, members] : m_channels) {
        const auto gone = members.find(process);
        if (gone == members.end()) {
            continue;
        }
        of = channel;
        Event event;
        event.kind = Event::Kind::Lost;
        event.time = time;
        event.channel = channel;
        event.from = process;
        event.role = gone->second.role;
        event.to = gone->second.partner;
        event.text = gone->second.direct ? "the direct link ends" : "";
        members.erase(gone);
        for (auto& [other, member] : members) {
            if (member.partner == process) {
                event.to = other;
                Member again;
                again.role = member.role;
                member = again;
            }
        }
        m_report(event);
    }
    for (auto channel = m_channels.begin(); channel != m_channels.end();) {
        channel = channel->second.empty() ? m_channels.erase(channel) : std::next(channel);
    }
    return of;
}

// What waits for a process that is gone. For a callee that is gone the bus still answers.
void Observer::Forget(const std::string& process) {
    for (auto* calls : {&m_requests, &m_link_requests}) {
        for (auto call = calls->begin(); call != calls->end();) {
            call = call->first.first == process ? calls->erase(call) : std::next(call);
        }
    }
    for (auto call = m_name_requests.begin(); call != m_name_requests.end();) {
        call = call->first.first == process ? m_name_requests.erase(call) : std::next(call);
    }
    for (auto last = m_last_announcer.begin(); last != m_last_announcer.end();) {
        last = last->second == process ? m_last_announcer.erase(last) : std::next(last);
    }
}

// ---- Messages ----

Event Observer::Incoming(GDBusMessage* message, Event::Kind kind, gint64 time) {
    Event event;
    event.kind = kind;
    event.time = time;
    event.channel = ChannelOf(message);
    event.from = Text(g_dbus_message_get_sender(message));
    event.to = Text(g_dbus_message_get_destination(message));
    const auto channel = m_channels.find(event.channel);
    if (channel != m_channels.end()) {
        const auto member = channel->second.find(event.from);
        event.role = member == channel->second.end() ? "" : member->second.role;
    }
    const std::string member = Text(g_dbus_message_get_member(message));
    const char* expected = kind == Event::Kind::Request        ? kMethod
                           : kind == Event::Kind::Notification ? kNotification
                                                               : nullptr;
    if (expected != nullptr && member != expected) {
        event.kind = Event::Kind::Malformed;
        event.text = std::string(ToString(kind)) + " called \"" + member + "\"";
    } else if (!HasPayloadType(message)) {
        event.kind = Event::Kind::Malformed;
        event.text = std::string(ToString(kind)) + " of type \"" + Type(message) + "\"";
    } else {
        event.payload = Payload(message);
        event.size = event.payload.size();
    }
    return event;
}

// An end sends to whom it has bound. This is all that tells so where the handshake was not seen.
void Observer::LearnFrom(const Event& message) {
    const auto channel = m_channels.find(message.channel);
    if (channel == m_channels.end() || channel->second.count(message.to) == 0) {
        return;
    }
    const auto member = channel->second.find(message.from);
    if (member != channel->second.end() && member->second.present &&
        member->second.partner.empty()) {
        member->second.partner = message.to;
    }
}

bool Observer::HasRoom() {
    const bool has =
        m_requests.size() + m_link_requests.size() + m_name_requests.size() < kMostCalls;
    m_forgotten += has ? 0 : 1;
    return has;
}

std::string Observer::TakeNotification(GDBusMessage* message, gint64 time) {
    std::string channel = ChannelOf(message);
    if (!channel.empty()) {
        Event event = Incoming(message, Event::Kind::Notification, time);
        if (event.to.empty() && event.text.empty()) {
            event.text = "sent to everybody";
        }
        m_report(event);
        LearnFrom(event);
    }
    return channel;
}

std::string Observer::TakeCall(GDBusMessage* message, gint64 time) {
    const Call call = {Text(g_dbus_message_get_sender(message)),
                       g_dbus_message_get_serial(message)};
    const std::string interface_name = Text(g_dbus_message_get_interface(message));
    std::string channel = ChannelOf(message);
    if (interface_name == kInterface && !channel.empty()) {
        Event request = Incoming(message, Event::Kind::Request, time);
        request.serial = call.second;
        m_report(request);
        LearnFrom(request);
        const bool is_answered =
            (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
        if (is_answered && HasRoom()) {
            request.payload = {};
            m_requests[call] = request;
        }
        return channel;
    }
    if (interface_name == kDirectInterface && !channel.empty()) {
        if (Text(g_dbus_message_get_member(message)) == kOpenLink && HasRoom()) {
            Event& link = m_link_requests[call];
            link.kind = Event::Kind::Direct;
            link.channel = channel;
            link.from = call.first;
            link.to = Text(g_dbus_message_get_destination(message));
        }
        return channel;
    }
    if (Text(g_dbus_message_get_destination(message)) != kDriver) {
        return {};
    }
    const std::string name = FirstText(message);
    const auto handshake = ParseHandshakeName(name);
    const auto announcement = handshake ? handshake : ParseRoleName(name);
    if (announcement && Text(g_dbus_message_get_member(message)) == "RequestName" && HasRoom()) {
        m_name_requests[call] = *announcement;
    }
    return announcement ? announcement->channel : "";
}

std::string Observer::TakeReply(GDBusMessage* message, gint64 time) {
    const Call call = {Text(g_dbus_message_get_destination(message)),
                       g_dbus_message_get_reply_serial(message)};
    if (const auto request = m_requests.extract(call)) {
        return TakeRequestReply(request.mapped(), message, time);
    }
    if (const auto link = m_link_requests.extract(call)) {
        return TakeLinkReply(link.mapped(), message, time);
    }
    if (const auto name = m_name_requests.extract(call)) {
        return TakeNameReply(call, name.mapped(), message, time);
    }
    return {};
}

std::string Observer::TakeRequestReply(const Event& request, GDBusMessage* message, gint64 time) {
    const std::string error = ErrorOf(message);
    Event event = Incoming(message, Event::Kind::Reply, time);
    event.channel = request.channel;
    event.from = request.to;
    event.to = request.from;
    event.role = Opposite(request.role);
    event.serial = request.serial;
    event.duration = time - request.time;
    if (error == kAnsweredDirectly) {
        event.kind = Event::Kind::Direct;
        event.text = "the reply goes over it";
    } else if (!error.empty()) {
        event.kind = Event::Kind::Error;
        event.text = error + ": " + FirstText(message);
    }
    if (!error.empty()) {
        event.payload = {};
        event.size = 0;
    }
    if (Text(g_dbus_message_get_sender(message)) == kDriver) {
        event.from = kDriver;  // the bus itself answers for a process that cannot
        event.role.clear();
    }
    m_report(event);
    return event.channel;
}

std::string Observer::TakeLinkReply(Event opened, GDBusMessage* message, gint64 time) {
    const std::string error = ErrorOf(message);
    opened.time = time;
    opened.text = error.empty() ? "begins" : "refused: " + error + ": " + FirstText(message);
    Members& members = m_channels[opened.channel];
    for (const std::string& process : {opened.from, opened.to}) {
        const auto member = members.find(process);
        if (member != members.end()) {
            member->second.direct = member->second.direct || error.empty();
        }
    }
    m_report(opened);
    return opened.channel;
}

std::string Observer::TakeNameReply(const Call& call, const Announcement& name,
                                    GDBusMessage* message, gint64 time) {
    constexpr guint32 kInQueue = 2;
    const std::string error = ErrorOf(message);
    guint32 code = 0;
    if (Type(message) == "u") {
        g_variant_get(g_dbus_message_get_body(message), "(u)", &code);
    }
    Event event;
    event.time = time;
    event.channel = name.channel;
    event.role = name.role;
    event.stage = name.stage;
    event.from = call.first;
    if (name.stage.empty()) {
        event.kind = Event::Kind::Standby;
        if (code == kInQueue) {
            m_channels[name.channel][call.first].role = name.role;
            m_report(event);
        }
    } else if (code != kPrimaryOwner) {
        event.kind = Event::Kind::Refused;
        event.text = error.empty() ? "another process owns it (" + std::to_string(code) + ")"
                                   : error + ": " + FirstText(message);
        m_report(event);
    }
    return name.channel;
}

}  // namespace programs
