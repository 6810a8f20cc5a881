// One end of a point-to-point message channel between two processes on one device, over the D-Bus
// system bus.
//
// Roles. The library is the client end: it announces names that end in "_CLIENT" plus a stage
// suffix and listens for names that end in "_SERVICE" plus a stage suffix. The partner process runs
// the mirror image. Two objects of this class never pair with each other. The application derives
// from the class, overrides the handlers and runs a GLib main loop.
//
// Handshake. Each stage (SYN, SYN_ACK, ACK) is announced by owning a well-known bus name for an
// instant. The bus reports the release with NameOwnerChanged, whose old owner is the announcer's
// unique name. No method call takes part, so neither end needs to know the other beforehand.
//
// Threads. Three kinds reach a channel:
//   - the loop thread: the one that iterates the main context that was the thread-default context
//     of the constructing thread. All bus callbacks run there, and with them the handlers;
//   - application threads: SendMessage, SendNotification and IsConnectionReady, from any thread;
//   - the resend thread, at most one recorded per channel, alive only while a failed announcement
//     is repeated every half second.
// One lock, m_mutex: handshake stages, partner loss and resend passes hold it for their whole work,
// the application's HandleConnectionReady included. Construction, destruction and all messaging
// take no lock: they read the state of the partner unguarded, by design.
//
// Lifetime. The application owns the object and destroys it on the loop thread. What is registered
// at the bus connection outlives the object by design (see the destructor), so the loop must not be
// run again for that connection afterwards. Payloads are never kept; replies are the caller's.
//
// Failures. Nothing is thrown and nothing is returned but a neutral result: false, an empty buffer,
// or nothing. The reason is in the device's log under the tag "sandrel" (platform/dlog.h), except
// for two lines of SendMessage on standard output.
//
// Channel names. A name is used unchanged inside bus names and as the last element of an object
// path, and is not validated: letters, digits and underscores are safe, as long as it does not
// begin with a digit. With any other name the object is constructed and, as no partner can serve
// it, does not become ready.
#pragma once

#include <gio/gio.h>
#include <pthread.h>

#include <map>
#include <string>
#include <vector>

#include "common/PTMutex.h"

// The one class that the shared library exports.
class __attribute__((visibility("default"))) TevrolDbusRemote {
public:
    // Brings up one end of the channel `name`: connects to the system bus (g_bus_get_sync, the
    // connection that the whole process shares), exports the channel object, subscribes to the
    // partner's handshake names and announces this end once (RequestName and ReleaseName).
    //
    // Blocks for those bus calls: for connecting without a documented timeout, for every other call
    // up to GIO's timeout of 25 s. The handlers are called by the main context that is the
    // thread-default context of this thread, once it is iterated; never during construction. Takes
    // no lock.
    //
    // Never throws on bus errors. Without a bus the object stays inert and is never ready. When
    // the object path is taken already (a second channel of the same name in this process), that
    // is logged and the rest goes on. A first announcement that fails is not repeated: the partner
    // then finds this end when it announces itself. Only a failed allocation throws.
    explicit TevrolDbusRemote(std::string name);

    // Releases what the object holds, in any state of the handshake. A resend thread between two
    // passes is waited for: half a second and one announcement.
    //
    // To be called on the loop thread, with no other thread inside an operation of this object and
    // no resend pass under way; takes no lock and logs nothing. It empties the list of owed
    // announcements, by design without the lock: a pass would be walking that list (undefined), and
    // if its announcement fails it puts the entry back, so that this waits for as long as
    // announcements fail. An application cannot see a pass; so where one may be under way, it keeps
    // the channel until the process ends.
    //
    // By design the registration of the channel object and the three subscriptions to the
    // partner's handshake names stay at the bus connection, with this object as their user data:
    // after the destructor, do not iterate the loop's main context again while the connection
    // lives (in practice: destroy channels as the process ends). GLib warns "Invalid id ... passed
    // to g_bus_unwatch_name()" up to four times; and if one of the ids happens to equal that of a
    // live g_bus_watch_name() watch of this process, that watch is removed.
    virtual ~TevrolDbusRemote();

    TevrolDbusRemote(const TevrolDbusRemote&) = delete;
    TevrolDbusRemote& operator=(const TevrolDbusRemote&) = delete;

    // Answers a request of the partner: `data` holds its bytes as they were sent (any number, all
    // 256 values), the returned buffer is the reply. Override it; the default logs and prints the
    // request and answers "Default handler from : " and this end's unique bus name.
    //
    // Called on the loop thread for each D-Bus call of "Send", without a lock. Until it returns, no
    // other bus callback of the loop runs. Requests are taken from any process that the bus lets
    // through, before the handshake too; one of another type than "(ay)" is answered by GIO with an
    // error and does not come here. `data` is gone after the call. Must not throw: the exception
    // would pass through GLib's C code.
    virtual std::vector<char> HandleMessage(std::vector<char>& data);

    // Takes a notification of the bound partner: `data` holds its bytes as they were sent. Override
    // it; the default logs and prints them.
    //
    // Called on the loop thread for each D-Bus signal of the channel's interface from the partner,
    // without a lock; one of another type than "(ay)" is logged and dropped. `data` is gone after
    // the call. Must not throw, as HandleMessage.
    virtual void HandleNotification(std::vector<char>& data);

    // Tells that a partner has become ready (`state` true) or has been lost (false); `partner` is
    // its unique bus name. Override it; the default logs `state`.
    //
    // Called on the loop thread, or on the resend thread when the completing announcement had to
    // be repeated, and always with m_mutex held: it may call SendMessage, SendNotification and
    // IsConnectionReady, which take no lock, but must not wait for another thread that is inside a
    // bus callback of this channel, and must not run the main loop. Must not throw, as
    // HandleMessage.
    //
    // True may come repeatedly, and with the name of another process than the bound partner:
    // whoever releases the partner's ACK name completes the handshake. On loss the partner's name
    // is forgotten already, while IsConnectionReady still gives its old answer: a request fails,
    // and SendNotification must not be called (see there).
    virtual void HandleConnectionReady(bool state, const std::string& partner);

    // Sends `data` (not modified; 0 bytes to the bus's message limit, 32 MiB on a stock system bus)
    // to the partner as the D-Bus method call "Send" (g_dbus_proxy_call_sync) and returns its
    // reply.
    //
    // Blocks until the reply, an error or GIO's timeout of 25 s; from any thread. On the loop
    // thread nothing else is dispatched meanwhile, so two ends that request of each other from
    // their loop threads at once wait for each other. Takes no lock: a partner that is lost at the
    // same moment must not race with the call, so call it on the loop thread, or hold a lock of the
    // application's around it that HandleConnectionReady takes, too.
    //
    // Every failure gives an empty buffer, and so does an empty reply:
    //   - not ready: the line "Connection not set." on standard output;
    //   - bound without a proxy: the line "Proxy not ready" on standard output;
    //   - the call failed or timed out: logged with the error's code and message;
    //   - the reply is not "(ay)": logged with the type found.
    // Each successful call keeps one reference to its reply for good, by design: the process grows
    // by the size of each reply.
    std::vector<char> SendMessage(std::vector<char>& data);

    // Sends `data` (not modified; sizes as for SendMessage) to the partner as the D-Bus signal
    // "SendSignal", addressed to it alone (g_dbus_connection_emit_signal).
    //
    // Queues the message and returns; without a lock. Nothing tells whether the partner took it.
    //
    // From any thread, but not while a loss is handled, HandleConnectionReady included: the
    // partner's name is forgotten before the loss is told, so that no lock of the application's
    // keeps the two apart. On another thread they race for the name. In the handler the signal goes
    // to nobody: GIO reports a critical, and the payload's memory is not released. So call it on
    // the loop thread (g_main_context_invoke).
    //
    // Logged and not sent: when not ready, and when no partner is bound; an error
    // of the emission is logged too. A message over the bus's limit is queued without an error; the
    // bus then closes the connection.
    void SendNotification(std::vector<char>& data);

    // The same, if `partner` is exactly the unique bus name of the bound partner; otherwise logs
    // that it is not and sends nothing.
    void SendNotification(std::vector<char>& data, const std::string& partner);

    // Whether the handshake is complete: true from its completion until the loss of the partner has
    // been told. It turns false without a loss when a SYN_ACK that had to be repeated is announced
    // after another process has completed the handshake, and stays true when the bus goes.
    // From any thread; takes no lock, so the answer may be outdated when it is used.
    bool IsConnectionReady();

private:
    // Handshake states. They record progress; no stage consults them.
    enum {
        CONNECTION_NOT_STARTED,        // nothing started, or the partner was lost
        CONNECTION_HANDSHAKE_SYN,      // this end has announced its SYN
        CONNECTION_HANDSHAKE_SYN_ACK,  // this end has answered a partner's SYN
        CONNECTION_HANDSHAKE_ACK,      // the handshake is complete
    };

    // What the three handshake stages share; defined beside them.
    class Stage;

    // Announces `notification_name` by owning it and giving it back at once: the bus driver's
    // RequestName (not queueing) and ReleaseName. True when it was owned and the release was
    // answered. Loop thread or resend thread; the caller holds m_mutex, except in construction.
    bool BroadcastName(std::string& notification_name);

    // GDBus signal callbacks: NameOwnerChanged of the partner's SYN, SYN_ACK and ACK name.
    // Loop thread; each takes m_mutex for the rest of its work once it has read the parameters.
    static void cb_SynNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                       const gchar* object_path, const gchar* interface_name,
                                       const gchar* signal_name, GVariant* parameters,
                                       gpointer user_data);
    static void cb_SynAckNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                          const gchar* object_path, const gchar* interface_name,
                                          const gchar* signal_name, GVariant* parameters,
                                          gpointer user_data);
    static void cb_AckNameOwnerChanged(GDBusConnection* connection, const gchar* sender_name,
                                       const gchar* object_path, const gchar* interface_name,
                                       const gchar* signal_name, GVariant* parameters,
                                       gpointer user_data);
    // The bound partner's unique name left the bus: ends the binding. Loop thread; takes m_mutex
    // for all of its work.
    static void cb_PartnerNameVanished(GDBusConnection* connection, const gchar* name,
                                       gpointer user_data);
    // Incoming call of "Send". Loop thread; no lock.
    static void cb_MethodCall(GDBusConnection* connection, const gchar* sender,
                              const gchar* object_path, const gchar* interface_name,
                              const gchar* method_name, GVariant* parameters,
                              GDBusMethodInvocation* invocation, gpointer user_data);
    // Incoming signal of the partner's object. Loop thread; no lock.
    static void cb_SignalCall(GDBusConnection* connection, const gchar* sender_name,
                              const gchar* object_path, const gchar* interface_name,
                              const gchar* signal_name, GVariant* parameters, gpointer user_data);
    // Payload conversion: bytes to a floating "(ay)" value, and a "(ay)" value to its bytes.
    static GVariant* ConvertBytes(std::vector<char>& bytes);
    static std::vector<char> ConvertBytes(GVariant* bytes);
    // One resend pass over the channel `data`: 1 when announcements remain to be repeated, else 0.
    // Resend thread; takes m_mutex for all of its work.
    static guint8 OnResendHandshake(void* data);
    // The resend thread's body (pthread_create): a pass every half second until nothing remains.
    static void* TimerThread(void* data);

    static const gchar* const INTERFACE_XML;
    static const char* const TEVROL_DBUS_PREFIX;
    static const char* const TEVROL_DBUS_OBJ_NAME;
    static const char* const TEVROL_DBUS_OBJ_IFACE;
    static const char* const TEVROL_DBUS_OBJ_METHOD;
    static const char* const TEVROL_DBUS_SIG_NAME;
    static const char* const TEVROL_DBUS_SYN_SUFFIX;
    static const char* const TEVROL_DBUS_SYNACK_SUFFIX;
    static const char* const TEVROL_DBUS_ACK_SUFFIX;
    // The role suffixes. Named prefixes, but they stand behind the channel name.
    static const char* const BROADCAST_PREFIX;
    static const char* const LISTEN_PREFIX;
    static const GDBusInterfaceVTable m_vtable;

    // Construction and destruction write all of these without the lock.

    // Constant after construction.
    std::string m_name;              // the channel name
    std::string m_public_dbus_name;  // this process's unique bus name; empty without a bus
    // The partner's unique bus name, empty when none is bound. Written under m_mutex.
    std::string m_partner_dbus_name;
    // Constant after construction. An id is 0 and a pointer null when not held.
    std::string m_object_name;  // object path of this end and of the partner's alike
    GDBusNodeInfo* m_introspection_data = nullptr;  // INTERFACE_XML parsed; one reference
    guint m_owner_id = 0;                           // a name ownership; never taken, always 0
    guint m_reg_obj_id = 0;              // registration of the channel object; never released
    guint m_notification_watch_syn = 0;  // subscriptions to the partner's handshake names
    guint m_notification_watch_syn_ack = 0;
    guint m_notification_watch_ack = 0;
    // The binding to the partner. Written on the loop thread under m_mutex; messaging reads it
    // without.
    guint m_proxy_watch = 0;        // watch on the partner's unique name
    GDBusProxy* m_proxy = nullptr;  // proxy of the partner's object; one reference
    guint m_signal_id = 0;          // subscription to the partner's signals
    // A handshake state. Written under m_mutex, by resend passes too; read without.
    int m_handshake = CONNECTION_NOT_STARTED;
    // Constant after construction.
    GDBusConnection* m_connection = nullptr;  // the system bus connection; one reference
    // Guards the state of the handshake, the binding and the two members below. Not recursive.
    PTMutex m_mutex;
    pthread_t m_timerThread = 0;  // the resend thread; 0 when none is recorded
    // Announcements that failed: partner's unique name to the stage suffix owed to it.
    std::map<std::string, std::string> m_resendHandshake;
};
