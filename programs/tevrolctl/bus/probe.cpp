// SPDX-License-Identifier: MIT
#include "programs/tevrolctl/bus/probe.h"

#include <map>
#include <set>
#include <utility>

#include "devkit/outside-text.h"
#include "programs/common/names.h"

namespace programs {
namespace {

constexpr gint kPatienceMs = 2000;
constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

std::string Text(const gchar* text) {
    return text == nullptr ? "" : text;
}

}  // namespace

// What has come, filled by GDBus's thread, which may outlive the probe.
struct Probe::Inbox {
    tevrol::Mutex mutex;
    std::map<guint32, std::string> refusals TEVROL_GUARDED_BY(mutex);  // by serial
    std::set<std::string> heard TEVROL_GUARDED_BY(mutex);
    bool monitors TEVROL_GUARDED_BY(mutex) = false;
    std::map<std::pair<std::string, guint32>, bool> asked TEVROL_GUARDED_BY(mutex);  // refused?

    // False when the message is no longer for GDBus.
    bool Take(GDBusMessage* message) {
        const tevrol::Lock lock(mutex);
        const auto kind = g_dbus_message_get_message_type(message);
        const std::string member = Text(g_dbus_message_get_member(message));
        const guint32 answered = g_dbus_message_get_reply_serial(message);
        if (monitors && kind == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            asked[{Text(g_dbus_message_get_sender(message)), g_dbus_message_get_serial(message)}] =
                false;
            return false;  // GDBus would answer it
        }
        if (monitors && kind == G_DBUS_MESSAGE_TYPE_ERROR) {
            const auto question =
                asked.find({Text(g_dbus_message_get_destination(message)), answered});
            if (question != asked.end() &&
                Text(g_dbus_message_get_error_name(message)) == kAccessDenied) {
                question->second = true;
            }
            return false;
        }
        if (kind == G_DBUS_MESSAGE_TYPE_ERROR) {
            GError* error = nullptr;
            g_dbus_message_to_gerror(message, &error);
            refusals[answered] = tevrol::TakeMessage(error);
        } else if (kind == G_DBUS_MESSAGE_TYPE_SIGNAL && member == "NameOwnerChanged") {
            heard.insert(Text(g_dbus_message_get_arg0(message)));
        }
        return true;
    }
};

Probe::Probe(std::string channel)
    : m_channel(std::move(channel)),
      m_connection(PrivateConnection()),
      m_inbox(std::make_shared<Inbox>()) {
    const auto destroy = [](gpointer inbox) { delete static_cast<std::shared_ptr<Inbox>*>(inbox); };
    g_dbus_connection_add_filter(m_connection.get(), OnMessage, new std::shared_ptr<Inbox>(m_inbox),
                                 destroy);
    const auto nothing = [](GDBusConnection*, const gchar*, const gchar*, const gchar*,
                            const gchar*, GVariant*, gpointer) {};
    g_dbus_connection_signal_subscribe(m_connection.get(), kDriver, kDriver, "NameOwnerChanged",
                                       kDriverPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, nothing,
                                       nullptr, nullptr);
    Settle();
}

Probe::~Probe() {
    g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
}

GDBusMessage* Probe::OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                               gpointer inbox) {
    if (incoming == FALSE || (*static_cast<std::shared_ptr<Inbox>*>(inbox))->Take(message)) {
        return message;
    }
    g_object_unref(message);
    return nullptr;
}

// All that the bus has to say of what was sent so far is in the inbox.
void Probe::Settle() {
    const Variant answer(g_dbus_connection_call_sync(
        m_connection.get(), kDriver, kDriverPath, kDriver, "GetId", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, kPatienceMs, nullptr, nullptr));
}

std::string Probe::NotifyRefusal(const std::string& destination) {
    const std::unique_ptr<GDBusMessage, tevrol::GObjectUnref> notification(
        g_dbus_message_new_signal(ObjectPath(m_channel).c_str(), kInterface, kNotification));
    g_dbus_message_set_destination(notification.get(), destination.c_str());
    g_dbus_message_set_body(notification.get(), g_variant_new("(s)", ""));
    guint32 serial = 0;
    g_dbus_connection_send_message(m_connection.get(), notification.get(),
                                   G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial, nullptr);
    Settle();
    const tevrol::Lock lock(m_inbox->mutex);
    const auto refusal = m_inbox->refusals.find(serial);
    return refusal == m_inbox->refusals.end() ? "" : tevrol::Printable(refusal->second);
}

bool Probe::HasHeard(const std::string& handshake_name) {
    Settle();
    const tevrol::Lock lock(m_inbox->mutex);
    return m_inbox->heard.count(handshake_name) != 0;
}

bool Probe::BecomeMonitor() {
    const std::string requests =
        std::string("type='method_call',member='RequestName',arg0namespace='org.ulmar.Tevrol'");
    const std::string errors = std::string("type='error',sender='") + kDriver + "'";
    const char* const rules[] = {requests.c_str(), errors.c_str(), nullptr};
    const Variant answer(g_dbus_connection_call_sync(
        m_connection.get(), kDriver, kDriverPath, "org.freedesktop.DBus.Monitoring",
        "BecomeMonitor", g_variant_new("(^asu)", rules, 0), nullptr, G_DBUS_CALL_FLAGS_NONE,
        kPatienceMs, nullptr, nullptr));
    const tevrol::Lock lock(m_inbox->mutex);
    m_inbox->monitors = answer != nullptr;
    return m_inbox->monitors;
}

std::vector<std::string> Probe::Refused() const {
    const tevrol::Lock lock(m_inbox->mutex);
    std::vector<std::string> refused;
    for (const auto& [question, denied] : m_inbox->asked) {
        if (denied) {
            refused.push_back(question.first);
        }
    }
    return refused;
}

}  // namespace programs
