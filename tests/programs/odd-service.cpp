// SPDX-License-Identifier: MIT
#include "tests/programs/odd-service.h"

#include <memory>

namespace {

constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";
constexpr const char* kClientNames = "org.ulmar.Tevrol.demo_CLIENT_";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kServiceNames = "org.ulmar.Tevrol.demo_SERVICE_";

std::string Text(const gchar* text) {
    return text == nullptr ? "" : text;
}

OddService::Incoming Read(GDBusMessage* message) {
    OddService::Incoming read = {Text(g_dbus_message_get_sender(message)),
                                 Text(g_dbus_message_get_member(message)),
                                 Text(g_dbus_message_get_signature(message)),
                                 {}};
    if (read.type == "ay") {
        GVariant* bytes = g_variant_get_child_value(g_dbus_message_get_body(message), 0);
        gsize size = 0;
        const auto* data = static_cast<const char*>(g_variant_get_fixed_array(bytes, &size, 1));
        read.payload.assign(data, data + size);
        g_variant_unref(bytes);
    }
    return read;
}

}  // namespace

struct OddService::Arrived {
    std::shared_ptr<Link> link;
    GDBusMessage* message;
};

OddService::OddService() : m_link(std::make_shared<Link>(Link{this})) {
    const auto forget = [](gpointer link) { delete static_cast<std::shared_ptr<Link>*>(link); };
    g_dbus_connection_add_filter(Get(), OnMessage, new std::shared_ptr<Link>(m_link), forget);
    CallDriver("AddMatch", g_variant_new("(s)",
                                         "type='signal',sender='org.freedesktop.DBus',"
                                         "member='NameOwnerChanged'"));
}

OddService::~OddService() {
    m_link->service = nullptr;
}

void OddService::Announce(const std::string& stage) {
    Pulse(kServiceNames + stage);
}

// On GDBus's thread: all but the replies to its own calls goes on to the main loop, in order.
GDBusMessage* OddService::OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                    gpointer link) {
    const auto type = g_dbus_message_get_message_type(message);
    if (incoming == FALSE ||
        (type != G_DBUS_MESSAGE_TYPE_SIGNAL && type != G_DBUS_MESSAGE_TYPE_METHOD_CALL)) {
        return message;
    }
    const auto take = [](gpointer data) -> gboolean {
        const auto* arrived = static_cast<Arrived*>(data);
        if (arrived->link->service != nullptr) {
            arrived->link->service->Take(arrived->message);
        }
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) {
        const std::unique_ptr<Arrived> arrived(static_cast<Arrived*>(data));
        g_object_unref(arrived->message);
    };
    g_idle_add_full(G_PRIORITY_DEFAULT, take,
                    new Arrived{*static_cast<std::shared_ptr<Link>*>(link), message}, destroy);
    return nullptr;
}

void OddService::Take(GDBusMessage* message) {
    if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        TakeRequest(message);
    } else if (Text(g_dbus_message_get_interface(message)) == kInterface) {
        if (on_notification) {
            on_notification(Read(message));
        }
    } else if (Text(g_dbus_message_get_member(message)) == "NameOwnerChanged") {
        TakeOwnerChange(message);
    }
}

void OddService::TakeOwnerChange(GDBusMessage* signal) {
    const gchar* changed = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(g_dbus_message_get_body(signal), "(&s&s&s)", &changed, &old_owner, &new_owner);
    const std::string name = changed;
    const std::string client_names = kClientNames;
    if (name.compare(0, client_names.size(), client_names) == 0) {
        const std::string stage = name.substr(client_names.size());
        if (*new_owner == '\0') {
            TakeAnnouncement(stage, old_owner);
        } else if (on_acquired) {
            on_acquired(stage, new_owner);
        }
    } else if (name.front() == ':' && *new_owner == '\0' && !(on_left && on_left(name)) &&
               name == m_bound) {
        m_bound.clear();
    }
}

void OddService::TakeAnnouncement(const std::string& stage, const std::string& client) {
    const bool answered = stage == "SYN" || stage == "SYN_ACK";
    if ((on_announced && on_announced(stage, client)) || !m_bound.empty() || !answered) {
        return;
    }
    Bind(client);
    AnnounceAnswer(stage == "SYN" ? "SYN_ACK" : "ACK");
}

// A refused announcement is repeated until the client has left.
void OddService::AnnounceAnswer(const std::string& stage) {
    constexpr guint kAgainMs = 100;
    if (Acquire(kServiceNames + stage) == 1) {
        Release(kServiceNames + stage);
        return;
    }
    struct Owed {
        std::shared_ptr<Link> link;
        std::string stage;
        std::string client;
    };
    const auto repeat = [](gpointer data) -> gboolean {
        const auto* owed = static_cast<Owed*>(data);
        if (owed->link->service != nullptr && owed->link->service->m_bound == owed->client) {
            owed->link->service->AnnounceAnswer(owed->stage);
        }
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer data) { delete static_cast<Owed*>(data); };
    g_timeout_add_full(G_PRIORITY_DEFAULT, kAgainMs, repeat, new Owed{m_link, stage, m_bound},
                       destroy);
}

void OddService::Introspect(GDBusMessage* call) {
    GDBusMessage* reply = g_dbus_message_new_method_reply(call);
    const std::string xml =
        std::string("<node><interface name='") + kInterface +
        "'><method name='Send'><arg type='ay' direction='in'/><arg type='ay' direction='out'/>"
        "</method></interface></node>";
    g_dbus_message_set_body(reply, g_variant_new("(s)", xml.c_str()));
    g_dbus_connection_send_message(Get(), reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
}

void OddService::TakeRequest(GDBusMessage* call) {
    const Incoming request = Read(call);
    const bool correct = request.type == "ay" && request.member == "Send";
    const auto habit = on_request ? on_request(request) : std::nullopt;
    const Reply kind = habit.value_or(correct ? Reply::Correct : Reply::Error);
    if (request.member == "Introspect") {
        return Introspect(call);
    }
    if (kind == Reply::None) {
        return;
    }
    GDBusMessage* reply =
        kind == Reply::Error
            ? g_dbus_message_new_method_error_literal(
                  call, correct ? "org.ulmar.tevrol.Error.Odd" : kInvalidArgs, "refused")
            : g_dbus_message_new_method_reply(call);
    if (kind == Reply::Correct) {
        g_dbus_message_set_body(reply, BodyOf(request.payload));
    } else if (kind == Reply::OtherBytes) {
        g_dbus_message_set_body(reply, BodyOf({'o', 'd', 'd'}));
    } else if (kind == Reply::Text) {
        g_dbus_message_set_body(reply, g_variant_new("(s)", "odd"));
    }
    g_dbus_connection_send_message(Get(), reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
}
