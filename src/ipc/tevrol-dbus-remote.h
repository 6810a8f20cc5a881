// SPDX-License-Identifier: MIT
// One end of a point-to-point message channel between two processes on one device, over the D-Bus
// system bus.
//
// Roles. This library is the client end: it announces names that end in "_CLIENT" plus a stage
// suffix and listens for names that end in "_SERVICE" plus a stage suffix. The partner process runs
// the mirror image. Two objects of this class never pair with each other. The application derives
// from the class, overrides the handlers and runs a GLib main loop.
//
// Handshake. An end announces a stage (SYN, SYN_ACK, ACK) by owning a well-known bus name for an
// instant. The bus reports the release with NameOwnerChanged. Its old owner is the announcer's
// unique name, so neither end needs to know the other's address beforehand.
//
// Threads. Three kinds reach a channel:
//   - the loop thread iterates the main context that was the thread-default context of the
//     constructing thread. All bus callbacks and the handlers run there;
//   - application threads call SendMessage, SendNotification and IsConnectionReady;
//   - the resend thread repeats a failed announcement every half second, then ends. At most one is
//     recorded per channel.
// The loop thread keeps its main context thread-default while it iterates it. The reason:
// notifications and the loss arrive in the context that is thread-default when the partner is
// bound, and the channel binds in a bus callback. The process's default context is always
// thread-default unless another one is pushed.
//
// One lock, m_mutex: handshake stages, partner loss and resend passes hold it for their whole work,
// HandleConnectionReady included. Construction, destruction and messaging take no lock: they read
// the partner's state unguarded, by design.
//
// Lifetime. The application owns the object and destroys it on the loop thread. By design some
// registrations at the bus connection outlive the object (see the destructor), so the application
// does not run the loop for that connection afterwards. Payloads are never kept. A reply belongs to
// the caller.
//
// Failures. Bus errors are neither thrown nor returned: an operation then gives false, an empty
// buffer, or nothing. The reason is in the device's log under the tag "sandrel" (platform/dlog.h),
// except for two lines of SendMessage on standard output.
//
// Channel names. A name is used unchanged in bus names and as the last element of an object path,
// and is not validated. Letters, digits and underscores are safe if the first is no digit. With
// another name the object may be constructed and even become ready, when a process announces the
// partner's name; but where the name is unfit for an object path, it carries no request and no
// notification.
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
    // Blocks for these bus calls: no timeout is documented for connecting, every other call has
    // GIO's timeout of 25 s. Takes no lock. No handler is called during construction.
    //
    // Never throws on bus errors. Without a bus the object does nothing and is never ready. If the
    // object path is taken (a second channel of the same name in this process), it logs that and
    // goes on. It does not repeat a first announcement that fails: the partner then finds this end
    // when it announces itself. Only a failed allocation throws. Without a free file descriptor
    // GLib aborts the process, here as in every later announcement.
    explicit TevrolDbusRemote(std::string name);

    // Releases what the object holds, in any state of the handshake. Waits for a recorded resend
    // thread: half a second and one announcement at most, with the two exceptions below.
    //
    // Call it on the loop thread, with no other thread inside an operation of this object and no
    // resend pass under way. It takes no lock and logs nothing.
    //   - It empties the list of owed announcements, by design without the lock. A pass that runs
    //     at that moment walks the same list (undefined behaviour). If its announcement fails, it
    //     puts its entry back, and the destructor waits for as long as announcements fail.
    //   - If a resend thread could not be created ("Timer thread create status: 0"), the handle
    //     that pthread_create left is joined, by design. Another thread of the process may have
    //     got the same handle: the destructor then waits until that thread ends.
    // An application can see neither, so it keeps its channels until the process ends.
    //
    // By design the registration of the channel object and the three subscriptions to the
    // partner's handshake names stay at the bus connection, with this object as their user data:
    // do not iterate the loop's main context again while the connection lives. GLib warns "Invalid
    // id ... passed to g_bus_unwatch_name()" up to four times. If one of the ids equals that of a
    // live g_bus_watch_name() watch of this process, that watch is removed.
    virtual ~TevrolDbusRemote();

    TevrolDbusRemote(const TevrolDbusRemote&) = delete;
    TevrolDbusRemote& operator=(const TevrolDbusRemote&) = delete;

    // Answers a request: `data` holds its bytes as they were sent (any number, all 256 values), the
    // returned buffer is the reply. Override it; the default logs and prints the request and
    // answers "Default handler from : " and this end's unique bus name.
    //
    // Called on the loop thread for each D-Bus call of "Send", without a lock. No other bus
    // callback of the loop runs until it returns. It gets requests of any process that the bus
    // lets through, also before the handshake. GIO answers a request of another type than "(ay)"
    // with an error. `data` is gone after the call. Must not throw: the exception would pass
    // through GLib's C code.
    virtual std::vector<char> HandleMessage(std::vector<char>& data);

    // Takes a notification of the bound partner: `data` holds its bytes as they were sent. Override
    // it; the default logs and prints them.
    //
    // Called on the loop thread for each D-Bus signal of the channel's interface from the partner,
    // without a lock. A signal of another type than "(ay)" is logged and dropped. `data` is gone
    // after the call. Must not throw, as HandleMessage.
    virtual void HandleNotification(std::vector<char>& data);

    // Tells that a partner has become ready (`state` true) or has been lost (false); `partner` is
    // its unique bus name. Override it; the default logs `state`.
    //
    // Called on the loop thread, or on the resend thread if the completing announcement had to be
    // repeated, always with m_mutex held. It may call SendMessage, SendNotification and
    // IsConnectionReady, which take no lock. It must not wait for a thread that is inside a bus
    // callback of this channel, must not run the main loop and must not throw (see HandleMessage).
    //
    // True may come repeatedly, and with the name of another process than the bound partner:
    // whoever releases the partner's ACK name completes the handshake. False may come without an
    // earlier true. On loss the partner's name is already forgotten, but IsConnectionReady still
    // gives its old answer: a request fails, and SendNotification must not be called (see there).
    virtual void HandleConnectionReady(bool state, const std::string& partner);

    // Sends `data` (not modified; 0 bytes to the bus's message limit, 32 MiB on a stock system bus)
    // to the partner as the D-Bus method call "Send" (g_dbus_proxy_call_sync) and returns its
    // reply.
    //
    // Blocks until the reply, an error or GIO's timeout of 25 s. On the loop thread it keeps
    // everything else waiting: two ends that request of each other from their loop threads at once
    // both run into the timeout. Takes no lock, but must not overlap with the partner's loss. So
    // call it on the loop thread; or on any thread, with a lock of the application's around it that
    // HandleConnectionReady takes, too.
    //
    // Every failure gives an empty buffer, and so does an empty reply:
    //   - not ready: the line "Connection not set." on standard output;
    //   - bound without a proxy: the line "Proxy not ready" on standard output;
    //   - the call failed or timed out: logged with the error's code and message. A stock bus
    //     refuses a call at once when 128 calls of this process are unanswered; a call that has
    //     timed out counts until its partner answers or leaves;
    //   - the reply is not "(ay)": logged with the type found.
    // Without a free file descriptor GLib aborts the process. Each successful call keeps one
    // reference to its reply for good, by design: the process grows by the size of each reply.
    std::vector<char> SendMessage(std::vector<char>& data);

    // Sends `data` (not modified; sizes as for SendMessage) to the partner as the D-Bus signal
    // "SendSignal", addressed to it alone (g_dbus_connection_emit_signal).
    //
    // Queues the message and returns; without a lock. Nothing tells whether the partner took it.
    //
    // Call it on the loop thread (g_main_context_invoke), but not in HandleConnectionReady(false,
    // ...). The channel forgets the partner's name before it tells the loss, so a lock that
    // HandleConnectionReady takes comes too late here: another thread may read the name while it
    // changes. In that handler the signal goes to nobody: GIO reports a critical, and the memory of
    // the payload is lost.
    //
    // Logs and does not send if not ready or if no partner is bound. Logs an error of the emission.
    // A message over the bus's limit is queued without an error, and the bus then closes the
    // connection.
    void SendNotification(std::vector<char>& data);

    // The same, if `partner` is exactly the unique bus name of the bound partner. Otherwise logs
    // that it is not, and sends nothing.
    void SendNotification(std::vector<char>& data, const std::string& partner);

    // Whether the handshake is complete: true from its completion until the loss of the partner has
    // been told. It turns false without a loss if a repeated SYN_ACK is announced after another
    // process has completed the handshake. It stays true when the bus goes away.
    // From any thread; takes no lock, so the answer may be outdated when it is used.
    bool IsConnectionReady();

private:
    // Handshake states. They record progress; no stage reads them.
    enum {
        CONNECTION_NOT_STARTED,        // nothing started, or the partner was lost
        CONNECTION_HANDSHAKE_SYN,      // this end has announced its SYN
        CONNECTION_HANDSHAKE_SYN_ACK,  // this end has answered a partner's SYN
        CONNECTION_HANDSHAKE_ACK,      // the handshake is complete
    };

    // What the three handshake stages share; defined beside them.
    class Stage;

    // Announces `notification_name`: owns it and gives it back at once by the bus driver's
    // RequestName (without queueing) and ReleaseName. True if it was owned and the bus answered the
    // release. Loop thread or resend thread; the caller holds m_mutex, except in construction.
    bool BroadcastName(std::string& notification_name);

    // GDBus signal callbacks: NameOwnerChanged of the partner's SYN, SYN_ACK and ACK name.
    // Loop thread; each reads the parameters, then takes m_mutex for the rest of its work.
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
    // One resend pass over the channel `data`: 1 if announcements remain to be repeated, else 0.
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
    // The role suffixes. They are named prefixes but follow the channel name.
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
    // The resend thread; 0 when none is recorded. After a failed pthread_create, what that left.
    pthread_t m_timerThread = 0;
    // Announcements that failed: partner's unique name to the stage suffix owed to it.
    std::map<std::string, std::string> m_resendHandshake;
};
