// SPDX-License-Identifier: MIT
#include "ipc/tevrol-dbus-remote.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "platform/dlog.h"

namespace {

constexpr const char* kLogTag = "sandrel";

// Time between two attempts at a failed announcement, in microseconds.
constexpr useconds_t kResendPeriod = 500000;

constexpr const char* kBusDriverName = "org.freedesktop.DBus";
constexpr const char* kBusDriverPath = "/org/freedesktop/DBus";
constexpr const char* kBusDriverInterface = "org.freedesktop.DBus";

// RequestName: DBUS_NAME_FLAG_DO_NOT_QUEUE alone, and the one reply that leads on.
constexpr guint32 kDoNotQueue = 4;
constexpr guint32 kPrimaryOwner = 1;

// -1: the library's default timeout.
constexpr gint kDefaultTimeout = -1;

constexpr const char* BaseName(const char* path) {
    const char* base = path;
    for (const char* c = path; *c != '\0'; ++c) {
        if (*c == '/') {
            base = c + 1;
        }
    }
    return base;
}

constexpr const char* kSourceFile = BaseName(__FILE__);

}  // namespace

// The first arguments of __dlog_print for one log line: `message` (a literal) behind the prefix
// that every line carries, which names `function` as the place. Macros, so that the compiler checks
// the message against the arguments that follow it.
#define LOG_LINE(priority, function, message)                                               \
    LOG_ID_MAIN, priority, kLogTag, "%s: %s(%d) > [%s:%d] " message, kSourceFile, function, \
        __LINE__, function, __LINE__
#define DEBUG_LINE(function, message) LOG_LINE(DLOG_DEBUG, function, message)
#define ERROR_LINE(function, message) LOG_LINE(DLOG_ERROR, function, message)

const gchar* const TevrolDbusRemote::INTERFACE_XML =
    "<node>"
    "  <interface name='org.ulmar.tevrol.DbusCommunication'>"
    "    <method name='Send'>"
    "      <arg type='ay' name='data' direction='in'/>"
    "      <arg type='ay' name='response' direction='out'/>"
    "    </method>"
    "  </interface>"
    "</node>";
const char* const TevrolDbusRemote::TEVROL_DBUS_PREFIX = "org.ulmar.Tevrol";
const char* const TevrolDbusRemote::TEVROL_DBUS_OBJ_NAME = "/org/ulmar/tevrol/CommunicationChannel";
const char* const TevrolDbusRemote::TEVROL_DBUS_OBJ_IFACE = "org.ulmar.tevrol.DbusCommunication";
const char* const TevrolDbusRemote::TEVROL_DBUS_OBJ_METHOD = "Send";
const char* const TevrolDbusRemote::TEVROL_DBUS_SIG_NAME = "SendSignal";
const char* const TevrolDbusRemote::TEVROL_DBUS_SYN_SUFFIX = "_SYN";
const char* const TevrolDbusRemote::TEVROL_DBUS_SYNACK_SUFFIX = "_SYN_ACK";
const char* const TevrolDbusRemote::TEVROL_DBUS_ACK_SUFFIX = "_ACK";
const char* const TevrolDbusRemote::BROADCAST_PREFIX = "_CLIENT";
const char* const TevrolDbusRemote::LISTEN_PREFIX = "_SERVICE";
const GDBusInterfaceVTable TevrolDbusRemote::m_vtable = {cb_MethodCall, nullptr, nullptr, {}};

namespace {

// Whether a value from the bus has the type that its reader expects; if not, logs the type found
// for `function`. GIO checks neither the body of a signal nor the reply of a proxy without
// interface information, and unpacking a value of another type leaves the variables untouched.
bool HasType(GVariant* value, const char* type, const char* function) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE(type))) {
        return true;
    }
    __dlog_print(ERROR_LINE(function, "Unexpected type %s instead of %s\n\n"),
                 g_variant_get_type_string(value), type);
    return false;
}

// The default handlers' echo: the bytes as they are, and a newline. Not flushed.
void PrintBytes(const std::vector<char>& bytes) {
    for (const char byte : bytes) {
        putchar(static_cast<unsigned char>(byte));
    }
    putchar('\n');
}

}  // namespace

// ---- Construction and teardown ----

TevrolDbusRemote::TevrolDbusRemote(std::string name) : m_name(std::move(name)) {
    __dlog_print(DEBUG_LINE(__func__, "Constructor\n\n"));
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    g_type_init();  // without effect since GLib 2.36
    G_GNUC_END_IGNORE_DEPRECATIONS

    m_introspection_data = g_dbus_node_info_new_for_xml(INTERFACE_XML, nullptr);
    __dlog_print(DEBUG_LINE(__func__, "XML parsed\n\n"));
    m_object_name = std::string(TEVROL_DBUS_OBJ_NAME) + "/" + m_name;

    __dlog_print(DEBUG_LINE(__func__, "Getting connection to SYSTEM_BUS\n\n"));
    GError* error = nullptr;
    m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (error != nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Error while connecting to system bus [%d] %s\n\n"),
                     error->code, error->message);
        g_error_free(error);
        return;
    }
    if (m_connection == nullptr) {
        return;
    }

    m_public_dbus_name = g_dbus_connection_get_unique_name(m_connection);
    __dlog_print(DEBUG_LINE(__func__, "Working with unique name %s\n\n"),
                 m_public_dbus_name.c_str());
    __dlog_print(DEBUG_LINE(__func__, "Registering Object and Interface on path %s\n\n"),
                 m_object_name.c_str());
    m_reg_obj_id = g_dbus_connection_register_object(m_connection, m_object_name.c_str(),
                                                     m_introspection_data->interfaces[0], &m_vtable,
                                                     this, nullptr, &error);
    // Unlike a missing connection, this does not end construction, deliberately: the channel still
    // finds its partner and can send, but nobody can send it a request.
    if (error != nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Error while registering object [%d] %s\n\n"),
                     error->code, error->message);
        g_error_free(error);
        error = nullptr;
    }

    const std::string base = std::string(TEVROL_DBUS_PREFIX) + "." + m_name;
    __dlog_print(DEBUG_LINE(__func__, "Monitoring %s name waiting for communication partner\n\n"),
                 base.c_str());
    const auto subscribe = [&](const char* stage_suffix, GDBusSignalCallback callback) {
        return g_dbus_connection_signal_subscribe(
            m_connection, kBusDriverName, kBusDriverInterface, "NameOwnerChanged", kBusDriverPath,
            (base + LISTEN_PREFIX + stage_suffix).c_str(), G_DBUS_SIGNAL_FLAGS_NONE, callback, this,
            nullptr);
    };
    m_notification_watch_syn = subscribe(TEVROL_DBUS_SYN_SUFFIX, cb_SynNameOwnerChanged);
    m_notification_watch_syn_ack = subscribe(TEVROL_DBUS_SYNACK_SUFFIX, cb_SynAckNameOwnerChanged);
    m_notification_watch_ack = subscribe(TEVROL_DBUS_ACK_SUFFIX, cb_AckNameOwnerChanged);

    __dlog_print(DEBUG_LINE(__func__, "Notify others using name %s\n\n"), base.c_str());
    m_handshake = CONNECTION_HANDSHAKE_SYN;
    // Announced once. A failure is not repeated, deliberately: a partner that starts later
    // announces itself and is answered.
    std::string notification_name = base + BROADCAST_PREFIX + TEVROL_DBUS_SYN_SUFFIX;
    BroadcastName(notification_name);
}

// No lock, deliberately: the resend thread is ended by the emptied map and then joined, and bus
// callbacks cannot run meanwhile, because this is the loop thread. A resend pass can: keeping it
// out is left to the application.
TevrolDbusRemote::~TevrolDbusRemote() {
    m_handshake = CONNECTION_NOT_STARTED;
    m_resendHandshake.clear();
    if (m_timerThread != 0) {
        pthread_join(m_timerThread, nullptr);
    }
    if (m_owner_id != 0) {
        g_bus_unown_name(m_owner_id);
        m_owner_id = 0;
    }
    // Deliberately not g_dbus_connection_signal_unsubscribe(): the three subscriptions outlive the
    // object, with it as their user data, and so does the object registration m_reg_obj_id. GIO
    // rejects the ids with a warning, or ends the name watch that happens to have the same id. The
    // application must not run the loop for this connection any more.
    if (m_notification_watch_syn != 0) {
        g_bus_unwatch_name(m_notification_watch_syn);
        m_notification_watch_syn = 0;
    }
    if (m_notification_watch_syn_ack != 0) {
        g_bus_unwatch_name(m_notification_watch_syn_ack);
        m_notification_watch_syn_ack = 0;
    }
    if (m_notification_watch_ack != 0) {
        g_bus_unwatch_name(m_notification_watch_ack);
        m_notification_watch_ack = 0;
    }
    if (m_proxy_watch != 0) {
        g_bus_unwatch_name(m_proxy_watch);
        m_proxy_watch = 0;
    }
    if (m_proxy != nullptr) {
        g_object_unref(m_proxy);
        m_proxy = nullptr;
    }
    if (m_signal_id != 0) {
        g_dbus_connection_signal_unsubscribe(m_connection, m_signal_id);
        m_signal_id = 0;
    }
    if (m_introspection_data != nullptr) {
        g_dbus_node_info_unref(m_introspection_data);
        m_introspection_data = nullptr;
    }
    if (m_connection != nullptr) {
        g_object_unref(m_connection);
        m_connection = nullptr;
    }
}

// ---- Handshake ----

bool TevrolDbusRemote::BroadcastName(std::string& notification_name) {
    __dlog_print(DEBUG_LINE(__func__, "BroadcastName %s Public unique name %s\n\n"),
                 notification_name.c_str(), m_public_dbus_name.c_str());
    GError* error = nullptr;
    guint32 ret_code = 0;
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, kBusDriverName, kBusDriverPath, kBusDriverInterface, "RequestName",
        g_variant_new("(su)", notification_name.c_str(), kDoNotQueue), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, kDefaultTimeout, nullptr, &error);
    if (error != nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Error during request name call [%d] %s\n\n"),
                     error->code, error->message);
        g_error_free(error);
        error = nullptr;
    }
    if (reply == nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Cannot get response for name request\n\n"));
        return false;
    }
    g_variant_get(reply, "(u)", &ret_code);
    g_variant_unref(reply);
    if (ret_code != kPrimaryOwner) {
        __dlog_print(ERROR_LINE(__func__, "Cannot own name due to return code = %d\n\n"),
                     static_cast<int>(ret_code));
        return false;
    }
    __dlog_print(DEBUG_LINE(__func__, "Become primary owner for name. Releasing it.\n\n"));
    reply = g_dbus_connection_call_sync(
        m_connection, kBusDriverName, kBusDriverPath, kBusDriverInterface, "ReleaseName",
        g_variant_new("(s)", notification_name.c_str()), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, kDefaultTimeout, nullptr, &error);
    if (reply == nullptr) {
        g_clear_error(&error);  // deliberately neither logged nor inspected
        __dlog_print(ERROR_LINE(__func__, "Release failed due to empty response.\n\n"));
        return false;
    }
    g_variant_unref(reply);  // any answer counts as released, whatever its code
    return true;
}

// The work of one handshake callback, for the length of its call. Log lines name the callback as
// their function.
class TevrolDbusRemote::Stage {
public:
    Stage(const char* callback, GDBusConnection* connection, TevrolDbusRemote* channel)
        : m_callback(callback), m_connection(connection), m_channel(channel) {}

    // Reads one NameOwnerChanged and, when it is another process's release of the name, calls
    // `accept` with that process's unique name. m_mutex is held from the reading on, in `accept`
    // too.
    template <typename Accept>
    void OnRelease(GVariant* parameters, Accept accept) const {
        __dlog_print(DEBUG_LINE(m_callback, "%s called\n"), m_callback);
        if (m_connection == nullptr || m_channel == nullptr) {
            __dlog_print(ERROR_LINE(m_callback, "Empty user_data or connection not valid.\n\n"));
            return;
        }
        if (!HasType(parameters, "(sss)", m_callback)) {
            return;
        }
        const gchar* name = nullptr;
        const gchar* old_owner = nullptr;
        const gchar* new_owner = nullptr;
        g_variant_get(parameters, "(&s&s&s)", &name, &old_owner, &new_owner);
        const PTAutoLock lock_scope(m_channel->m_mutex);
        __dlog_print(DEBUG_LINE(m_callback, "%s %s %s from '%s' => '%s' \n\n"), m_callback, name,
                     m_channel->m_public_dbus_name.c_str(), old_owner, new_owner);
        const std::string oldOwner = old_owner;
        const std::string newOwner = new_owner;
        if (!newOwner.empty() || m_channel->m_public_dbus_name == oldOwner) {
            return;
        }
        accept(oldOwner);
    }

    // Answers `partner` with the announcement of the stage `suffix`, unless a partner is bound:
    // that one is neither replaced nor answered again. True when the announcement was made; one
    // that failed is left to the resend thread.
    bool BindAndAnnounce(const std::string& partner, const char* suffix) const {
        if (m_channel->m_proxy_watch != 0 || m_channel->m_signal_id != 0) {
            return false;
        }
        Bind(partner);
        return Announce(suffix);
    }

    static std::string AnnouncedName(const TevrolDbusRemote& channel, const char* suffix) {
        return std::string(TEVROL_DBUS_PREFIX) + "." + channel.m_name + BROADCAST_PREFIX + suffix;
    }

    static void Complete(TevrolDbusRemote& channel, const std::string& partner) {
        channel.m_handshake = CONNECTION_HANDSHAKE_ACK;
        channel.HandleConnectionReady(true, partner);
    }

private:
    // Makes the process `partner` the bound one, whatever of it can be made: the watch goes first,
    // so that a partner that is already gone is reported lost as soon as the loop runs.
    void Bind(const std::string& partner) const {
        __dlog_print(DEBUG_LINE(m_callback, "Monitor unique name %s\n\n"), partner.c_str());
        m_channel->m_proxy_watch = g_bus_watch_name_on_connection(
            m_connection, partner.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
            cb_PartnerNameVanished, m_channel, nullptr);
        __dlog_print(DEBUG_LINE(m_callback, "Partner is available and has unique name %s\n\n"),
                     partner.c_str());
        m_channel->m_partner_dbus_name = partner;
        __dlog_print(DEBUG_LINE(m_callback, "Create proxy for %s on obj %s\n\n"),
                     m_channel->m_partner_dbus_name.c_str(), m_channel->m_object_name.c_str());
        GError* error = nullptr;
        m_channel->m_proxy = g_dbus_proxy_new_sync(
            m_connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, nullptr,
            m_channel->m_partner_dbus_name.c_str(), m_channel->m_object_name.c_str(),
            TEVROL_DBUS_OBJ_IFACE, nullptr, &error);
        if (error != nullptr) {
            __dlog_print(ERROR_LINE(m_callback, "Error while registering proxy  %s\n\n"),
                         error->message);
            g_error_free(error);
        }
        __dlog_print(DEBUG_LINE(m_callback, "Subscribe for signals from %s on object %s.\n\n"),
                     m_channel->m_partner_dbus_name.c_str(), m_channel->m_object_name.c_str());
        m_channel->m_signal_id = g_dbus_connection_signal_subscribe(
            m_connection, m_channel->m_partner_dbus_name.c_str(), TEVROL_DBUS_OBJ_IFACE, nullptr,
            m_channel->m_object_name.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, cb_SignalCall,
            m_channel, nullptr);
    }

    bool Announce(const char* suffix) const {
        std::string notification_name = AnnouncedName(*m_channel, suffix);
        const bool result = m_channel->BroadcastName(notification_name);
        if (result) {
            __dlog_print(DEBUG_LINE(m_callback, "Successfully broadcasted: %s\n"),
                         notification_name.c_str());
        } else {
            __dlog_print(DEBUG_LINE(m_callback, "Failed to broadcast: %s. Requested resend\n"),
                         notification_name.c_str());
            RequestResend(suffix);
        }
        return result;
    }

    void RequestResend(const char* suffix) const {
        m_channel->m_resendHandshake[m_channel->m_partner_dbus_name] = suffix;
        // A recorded thread takes the entry on its next pass. If it has just made its last one, the
        // entry waits for the next failed announcement, or for teardown.
        if (m_channel->m_timerThread != 0) {
            return;
        }
        __dlog_print(
            DEBUG_LINE(m_callback, "Creating timer that will execute OnResendHandshake()\n"));
        // When this fails, m_timerThread deliberately keeps what pthread_create left in it. glibc
        // stores the handle before it starts the thread. So a thread that does not exist may stay
        // recorded: no later failure starts one, and the destructor joins that handle.
        const bool created =
            pthread_create(&m_channel->m_timerThread, nullptr, TimerThread, m_channel) == 0;
        // The flag, deliberately, not the return code.
        __dlog_print(DEBUG_LINE(m_callback, "Timer thread create status: %d\n"), created ? 1 : 0);
    }

    const char* const m_callback;
    GDBusConnection* const m_connection;  // the one on which the signal arrived
    TevrolDbusRemote* const m_channel;
};

void TevrolDbusRemote::cb_SynNameOwnerChanged(GDBusConnection* connection, const gchar*,
                                              const gchar*, const gchar*, const gchar*,
                                              GVariant* parameters, gpointer user_data) {
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    const Stage stage(__func__, connection, pThis);
    stage.OnRelease(parameters, [&](const std::string& oldOwner) {
        if (stage.BindAndAnnounce(oldOwner, TEVROL_DBUS_SYNACK_SUFFIX)) {
            pThis->m_handshake = CONNECTION_HANDSHAKE_SYN_ACK;
        }
    });
}

void TevrolDbusRemote::cb_SynAckNameOwnerChanged(GDBusConnection* connection, const gchar*,
                                                 const gchar*, const gchar*, const gchar*,
                                                 GVariant* parameters, gpointer user_data) {
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    const Stage stage(__func__, connection, pThis);
    stage.OnRelease(parameters, [&](const std::string& oldOwner) {
        // When both ends have answered each other's SYN, both drop the other's SYN_ACK here, being
        // bound, and wait for an ACK that nobody sends.
        if (stage.BindAndAnnounce(oldOwner, TEVROL_DBUS_ACK_SUFFIX)) {
            Stage::Complete(*pThis, oldOwner);
        }
    });
}

void TevrolDbusRemote::cb_AckNameOwnerChanged(GDBusConnection* connection, const gchar*,
                                              const gchar*, const gchar*, const gchar*,
                                              GVariant* parameters, gpointer user_data) {
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    const Stage stage(__func__, connection, pThis);
    stage.OnRelease(parameters, [&](const std::string& oldOwner) {
        // Deliberately not compared with the bound partner: while one is bound, any process's ACK
        // completes the handshake, and its name is the one that the application is told.
        if (pThis->m_proxy_watch == 0 || pThis->m_signal_id == 0) {
            return;
        }
        Stage::Complete(*pThis, oldOwner);
    });
}

void TevrolDbusRemote::cb_PartnerNameVanished(GDBusConnection* connection, const gchar* name,
                                              gpointer user_data) {
    __dlog_print(DEBUG_LINE(__func__, "cb_PartnerNameVanished name=%s\n\n"), name);
    // The bus itself going away arrives here without a connection: no loss is reported then.
    if (connection == nullptr || user_data == nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Empty user_data or connection not valid.\n\n"));
        return;
    }
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    const PTAutoLock lock_scope(pThis->m_mutex);
    if (pThis->m_partner_dbus_name != name) {
        return;
    }
    __dlog_print(DEBUG_LINE(__func__, "Connection lost with partner id=%s\n\n"), name);
    pThis->m_partner_dbus_name.clear();
    // Told before the binding is released: IsConnectionReady still gives its old answer.
    pThis->HandleConnectionReady(false, name);
    if (pThis->m_proxy_watch != 0) {
        __dlog_print(DEBUG_LINE(__func__, "Stop watching old partner messages.\n\n"));
        g_bus_unwatch_name(pThis->m_proxy_watch);
        pThis->m_proxy_watch = 0;
    }
    if (pThis->m_proxy != nullptr) {
        g_object_unref(pThis->m_proxy);
        pThis->m_proxy = nullptr;
    }
    if (pThis->m_signal_id != 0) {
        g_dbus_connection_signal_unsubscribe(connection, pThis->m_signal_id);
        pThis->m_signal_id = 0;
    }
    // Announcements still owed to the partner are dropped by the next resend pass.
    pThis->m_handshake = CONNECTION_NOT_STARTED;
}

bool TevrolDbusRemote::IsConnectionReady() {
    return m_handshake == CONNECTION_HANDSHAKE_ACK;
}

void TevrolDbusRemote::HandleConnectionReady(bool state, const std::string& /*partner*/) {
    __dlog_print(DEBUG_LINE(__func__, "Default handler - HandleConnectionReady = %d\n\n"),
                 state ? 1 : 0);
}

// ---- Resending failed announcements ----

guint8 TevrolDbusRemote::OnResendHandshake(void* data) {
    auto* pThis = static_cast<TevrolDbusRemote*>(data);
    __dlog_print(DEBUG_LINE(__func__, "Executed OnResendHandshake function\n"));
    const PTAutoLock lock_scope(pThis->m_mutex);
    __dlog_print(DEBUG_LINE(__func__, "Number of handshakes to resend: %d\n"),
                 static_cast<int>(pThis->m_resendHandshake.size()));
    std::map<std::string, std::string> modifiedResend;
    for (auto itr = pThis->m_resendHandshake.begin(); itr != pThis->m_resendHandshake.end();
         ++itr) {
        const std::string partnerName = itr->first;
        const std::string handshakeSuffix = itr->second;
        __dlog_print(DEBUG_LINE(__func__, "Resending handshake: partner %s, handshakeSuffix %s\n"),
                     partnerName.c_str(), handshakeSuffix.c_str());
        if (partnerName != pThis->m_partner_dbus_name) {
            __dlog_print(
                DEBUG_LINE(__func__, "Partner name: %s different then resend partner name: %s\n"),
                pThis->m_partner_dbus_name.c_str(), partnerName.c_str());
            continue;
        }
        const bool completes = handshakeSuffix == TEVROL_DBUS_ACK_SUFFIX;
        if (!completes && handshakeSuffix != TEVROL_DBUS_SYNACK_SUFFIX) {
            continue;
        }
        std::string notification_name = Stage::AnnouncedName(*pThis, handshakeSuffix.c_str());
        if (!pThis->BroadcastName(notification_name)) {
            __dlog_print(DEBUG_LINE(__func__, "Failed to broadcasted: %s. Will try once again\n"),
                         notification_name.c_str());
            modifiedResend[partnerName] = handshakeSuffix;
            continue;
        }
        __dlog_print(DEBUG_LINE(__func__, "Successfully broadcasted: %s\n"),
                     notification_name.c_str());
        if (completes) {
            Stage::Complete(*pThis, pThis->m_partner_dbus_name);
        } else {
            pThis->m_handshake = CONNECTION_HANDSHAKE_SYN_ACK;
        }
    }
    pThis->m_resendHandshake = modifiedResend;
    if (pThis->m_resendHandshake.empty()) {
        __dlog_print(DEBUG_LINE(__func__, "Nothing left to resend, closing timer\n"));
        return 0;
    }
    return 1;
}

void* TevrolDbusRemote::TimerThread(void* data) {
    auto* pThis = static_cast<TevrolDbusRemote*>(data);
    do {
        usleep(kResendPeriod);
    } while (OnResendHandshake(pThis) == 1);
    __dlog_print(DEBUG_LINE(__func__, "Finished timer thread\n"));
    // From here on nobody holds this thread's handle: it is never joined, by design, and each such
    // episode leaves one finished thread behind. An announcement that fails between the pass and
    // this point finds the thread still recorded and starts none.
    const PTAutoLock lock_scope(pThis->m_mutex);
    pThis->m_timerThread = 0;
    return nullptr;
}

// ---- Payload conversion ----

#ifdef TEVROL_BULK_PAYLOADS

// One copy of the whole payload each way.
inline GVariant* TevrolDbusRemote::ConvertBytes(std::vector<char>& bytes) {
    GVariant* array = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new_tuple(&array, 1);
}

inline std::vector<char> TevrolDbusRemote::ConvertBytes(GVariant* bytes) {
    GVariant* array = nullptr;
    g_variant_get(bytes, "(@ay)", &array);
    if (array == nullptr) {
        return {};  // another type: left untouched
    }
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
    std::vector<char> result_bytes(data, data + size);
    g_variant_unref(array);
    return result_bytes;
}

#else

// One builder call for each byte, the conversion as it is defined; nothing is copied in bulk.
inline GVariant* TevrolDbusRemote::ConvertBytes(std::vector<char>& bytes) {
    GVariantBuilder* param_builder = g_variant_builder_new(G_VARIANT_TYPE("ay"));
    for (auto byte = bytes.begin(); byte != bytes.end(); ++byte) {
        g_variant_builder_add(param_builder, "y", static_cast<guchar>(*byte));
    }
    GVariant* ret = g_variant_new("(ay)", param_builder);
    g_variant_builder_unref(param_builder);
    return ret;
}

inline std::vector<char> TevrolDbusRemote::ConvertBytes(GVariant* bytes) {
    std::vector<char> result_bytes;
    GVariantIter* iter = nullptr;
    g_variant_get(bytes, "(ay)", &iter);
    if (iter == nullptr) {
        return result_bytes;  // another type: left untouched
    }
    guchar byte_y = 0;
    while (g_variant_iter_loop(iter, "y", &byte_y)) {
        result_bytes.push_back(static_cast<char>(byte_y));
    }
    g_variant_iter_free(iter);
    return result_bytes;
}

#endif

// ---- Requests ----

std::vector<char> TevrolDbusRemote::SendMessage(std::vector<char>& data) {
    // These two failures go to standard output, deliberately; all others go to the log.
    if (!IsConnectionReady()) {
        puts("Connection not set.");
        return {};
    }
    if (m_proxy == nullptr) {
        puts("Proxy not ready");
        return {};
    }
    __dlog_print(DEBUG_LINE(__func__, "Sending sync message with %d bytes\n\n"),
                 static_cast<int>(data.size()));
    GVariant* params = ConvertBytes(data);
    GError* error = nullptr;
    GVariant* result =
        g_dbus_proxy_call_sync(m_proxy, TEVROL_DBUS_OBJ_METHOD, params, G_DBUS_CALL_FLAGS_NONE,
                               kDefaultTimeout, nullptr, &error);
    if (error != nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Error while sending message [%d] %s\n\n"), error->code,
                     error->message);
        g_error_free(error);
        return {};
    }
    if (result == nullptr) {
        return {};
    }
    if (!HasType(result, "(ay)", __func__)) {
        g_variant_unref(result);
        return {};
    }
    const std::vector<char> result_bytes = ConvertBytes(result);
    __dlog_print(DEBUG_LINE(__func__, "Reply with %d bytes\n\n"),
                 static_cast<int>(result_bytes.size()));
    // `result` keeps its reference for good, deliberately: do not add a release. The process grows
    // by the size of each reply. The copy has exactly the reply's size, deliberately: a buffer that
    // has grown byte by byte may have room for twice as much.
    return std::vector<char>(result_bytes);
}

// No lock, and neither the sender nor the state of the handshake is checked, deliberately: whoever
// may call the object is answered. The method needs no check: GIO answers any other one, and any
// other signature, with an error of its own.
void TevrolDbusRemote::cb_MethodCall(GDBusConnection* connection, const gchar* sender,
                                     const gchar* object_path, const gchar* interface_name,
                                     const gchar* method_name, GVariant* parameters,
                                     GDBusMethodInvocation* invocation, gpointer user_data) {
    __dlog_print(DEBUG_LINE(__func__,
                            "cb_MethodCall sender=%s obj_path=%s iface_name=%s method_name=%s\n\n"),
                 sender, object_path, interface_name, method_name);
    if (connection == nullptr || user_data == nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Empty user_data or connection not valid.\n\n"));
        return;
    }
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    if (pThis->m_object_name != object_path) {
        return;  // unanswered; GIO calls for the path that is registered alone
    }
    std::vector<char> param_bytes = ConvertBytes(parameters);
    std::vector<char> result = pThis->HandleMessage(param_bytes);
    g_dbus_method_invocation_return_value(invocation, ConvertBytes(result));
}

std::vector<char> TevrolDbusRemote::HandleMessage(std::vector<char>& data) {
    const std::string dbg_str(data.begin(), data.end());
    __dlog_print(DEBUG_LINE(__func__, "Default handler - HandleMessage = %s\n\n"), dbg_str.c_str());
    PrintBytes(data);
    const std::string reply = "Default handler from : " + m_public_dbus_name;
    return std::vector<char>(reply.begin(), reply.end());
}

// ---- Notifications ----

void TevrolDbusRemote::SendNotification(std::vector<char>& data) {
    if (!IsConnectionReady()) {
        __dlog_print(ERROR_LINE(__func__, "Connection not set.\n\n"));
        return;
    }
    // Sending needs no subscription: it stands for a bound partner.
    if (m_signal_id == 0) {
        __dlog_print(ERROR_LINE(__func__, "SignalSubscription not ready\n\n"));
        return;
    }
    __dlog_print(DEBUG_LINE(__func__, "Sending signal with %d bytes\n\n"),
                 static_cast<int>(data.size()));
    GVariant* params = ConvertBytes(data);
    GError* error = nullptr;
    g_dbus_connection_emit_signal(m_connection, m_partner_dbus_name.c_str(), m_object_name.c_str(),
                                  TEVROL_DBUS_OBJ_IFACE, TEVROL_DBUS_SIG_NAME, params, &error);
    if (error != nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Error while sending signal [%d] %s\n\n"), error->code,
                     error->message);
        g_error_free(error);
    }
}

void TevrolDbusRemote::SendNotification(std::vector<char>& data, const std::string& partner) {
    if (partner != m_partner_dbus_name) {
        __dlog_print(
            ERROR_LINE(__func__, "Attempt to send notification to not connected partner!\n"));
        return;
    }
    SendNotification(data);
}

// No lock. Every signal of the interface from the partner is a notification, whatever its name:
// that is how the binding subscribes.
void TevrolDbusRemote::cb_SignalCall(GDBusConnection* connection, const gchar* sender_name,
                                     const gchar* object_path, const gchar* interface_name,
                                     const gchar* signal_name, GVariant* parameters,
                                     gpointer user_data) {
    __dlog_print(DEBUG_LINE(__func__,
                            "cb_SignalCall sender=%s obj_path=%s iface_name=%s signal_name=%s\n\n"),
                 sender_name, object_path, interface_name, signal_name);
    if (connection == nullptr || user_data == nullptr) {
        __dlog_print(ERROR_LINE(__func__, "Empty user_data or connection not valid.\n\n"));
        return;
    }
    auto* pThis = static_cast<TevrolDbusRemote*>(user_data);
    if (pThis->m_object_name != object_path || !HasType(parameters, "(ay)", __func__)) {
        return;
    }
    std::vector<char> param_bytes = ConvertBytes(parameters);
    pThis->HandleNotification(param_bytes);
}

void TevrolDbusRemote::HandleNotification(std::vector<char>& data) {
    const std::string dbg_str(data.begin(), data.end());
    __dlog_print(DEBUG_LINE(__func__, "Default handler - HandleNotification = %s\n\n"),
                 dbg_str.c_str());
    PrintBytes(data);
}
