#include "tools/tevrolctl/raw-end.h"

#include <algorithm>
#include <utility>

#include "tools/loop.h"
#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/names.h"

namespace tevrolctl {
namespace {

constexpr guint32 kDoNotQueue = 4;

struct Method {
    std::string destination;
    std::string path;
    std::string interface_name;
    std::string name;
};

Answer CallSync(GDBusConnection* connection, const Method& method, GVariant* body, gint limit_ms) {
    Answer answer;
    GError* error = nullptr;
    answer.value.reset(g_dbus_connection_call_sync(
        connection, method.destination.c_str(), method.path.c_str(), method.interface_name.c_str(),
        method.name.c_str(), body, nullptr, G_DBUS_CALL_FLAGS_NONE, limit_ms, nullptr, &error));
    if (error != nullptr) {
        gchar* name = g_dbus_error_get_remote_error(error);
        answer.error_name = name == nullptr ? "" : name;
        g_free(name);
        g_dbus_error_strip_remote_error(error);
        answer.error = TakeMessage(error);
    }
    return answer;
}

}  // namespace

GVariant* PayloadBody(const tevrol::Bytes& payload) {
    return g_variant_new(
        "(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1));
}

RawEnd::RawEnd(std::string channel)
    : m_channel(std::move(channel)), m_connection(PrivateConnection()) {
    // Those of all names: the announcements of the service end, and who leaves the bus.
    m_subscription = g_dbus_connection_signal_subscribe(
        m_connection.get(), kDriver, kDriver, "NameOwnerChanged", kDriverPath, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, OnOwnerChange, this, nullptr);
    Settle();
}

RawEnd::~RawEnd() {
    Leave();
}

void RawEnd::Leave() {
    if (m_subscription != 0) {
        g_dbus_connection_signal_unsubscribe(m_connection.get(), m_subscription);
        m_subscription = 0;
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }
}

std::string RawEnd::UniqueName() const {
    return g_dbus_connection_get_unique_name(m_connection.get());
}

void RawEnd::OnOwnerChange(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                           GVariant* parameters, gpointer self) {
    auto* end = static_cast<RawEnd*>(self);
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, &old_owner, &new_owner);
    if (*new_owner != '\0') {
        return;
    }
    if (*name == ':') {
        end->m_left.emplace_back(name);
        return;
    }
    const auto announcement = ParseHandshakeName(name);
    if (announcement && announcement->channel == end->m_channel && announcement->role == kService) {
        end->m_heard.push_back({announcement->stage, old_owner});
    }
}

Answer RawEnd::CallDriver(const char* method, GVariant* parameters) {
    return CallSync(m_connection.get(), {kDriver, kDriverPath, kDriver, method}, parameters, -1);
}

guint32 RawEnd::Acquire(const char* stage) {
    const Answer answer = CallDriver(
        "RequestName",
        g_variant_new("(su)", HandshakeName(m_channel, kClient, stage).c_str(), kDoNotQueue));
    guint32 code = 0;
    if (answer.value) {
        g_variant_get(answer.value.get(), "(u)", &code);
    }
    return code;
}

void RawEnd::Release(const char* stage) {
    CallDriver("ReleaseName",
               g_variant_new("(s)", HandshakeName(m_channel, kClient, stage).c_str()));
}

bool RawEnd::Announce(const char* stage) {
    if (Acquire(stage) != kPrimaryOwner) {
        return false;
    }
    Release(stage);
    return true;
}

Answer RawEnd::Call(const std::string& destination, const char* method, GVariant* body,
                    std::chrono::milliseconds limit) {
    return CallSync(m_connection.get(), {destination, ObjectPath(m_channel), kInterface, method},
                    body, static_cast<gint>(limit.count()));
}

void RawEnd::Notify(const std::string& destination, GVariant* body) {
    g_dbus_connection_emit_signal(m_connection.get(), destination.c_str(),
                                  ObjectPath(m_channel).c_str(), kInterface, kNotification, body,
                                  nullptr);
}

std::optional<std::string> RawEnd::Await(const char* stage, std::size_t since,
                                         std::chrono::milliseconds limit) {
    std::optional<std::string> announcer;
    tevrol::IterateUntil(
        [&] {
            for (std::size_t i = since; i < m_heard.size() && !announcer; ++i) {
                if (m_heard[i].stage == stage) {
                    announcer = m_heard[i].announcer;
                }
            }
            return announcer.has_value();
        },
        limit);
    return announcer;
}

bool RawEnd::AwaitLoss(const std::string& process, std::chrono::milliseconds limit) {
    return tevrol::IterateUntil(
        [&] { return std::find(m_left.begin(), m_left.end(), process) != m_left.end(); }, limit);
}

void RawEnd::Settle() {
    CallDriver("GetId", nullptr);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

}  // namespace tevrolctl
