// A world without a bus: every function of GIO, GLib, pthread and standard output that the channel
// calls ends here, is written down with all its arguments, and answers what the test wants. It runs
// on one thread and needs no time, so that what the channel does can be compared call by call.
//
// tests/support/gio-calls.h is the other recorder, for the tests on a real bus: there the calls go
// through, and only what a test asks for is recorded. Here nothing goes through but values
// (GVariant, GError, the interface description), which are GLib's own.
//
// Works by link-time wrapping (see CMakeLists.txt), which takes in the whole test program: tests
// make their values by g_variant_new_parsed(), which the channel does not use.
#pragma once

#include <gio/gio.h>
#include <pthread.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "ipc/tevrol-dbus-remote.h"

// What happened, in order.
struct Event {
    enum class Kind { Call, Log, State, Handler };
    Kind kind;
    std::string text;      // the whole of it, in one line
    std::string function;  // that was called, or that logged
    // Call: whether it was made to fail, and how.
    bool failed = false;
    bool with_error = false;
    std::optional<guint32> code = {};
    // Call of a bus driver method: its name, and the name that it is about.
    std::string method = {};
    std::string subject = {};
    // Log.
    int priority = 0;
    std::string message = {};
};

// How a call that can fail shall end instead of well.
struct Failure {
    bool with_error = true;
    std::optional<guint32> code;  // of RequestName or ReleaseName: the code of a reply
};

// A call that can fail, as the plan sees it: the first since the world began has the number 1.
struct FailableCall {
    int number;
    std::string function;  // "g_bus_get_sync"
    std::string method;    // of a bus driver call: "RequestName"
    bool takes_error;

    bool IsLike(const FailableCall& other) const {
        return function == other.function && method == other.method;
    }
};

class StubWorld {
public:
    StubWorld();
    ~StubWorld();
    StubWorld(const StubWorld&) = delete;
    StubWorld& operator=(const StubWorld&) = delete;
    static StubWorld* Current();

    // Decides about each call that can fail; all end well where it is empty or answers nothing.
    std::function<std::optional<Failure>(const FailableCall&)> plan;
    // Plans the failure of the next call of `function` ("RequestName" for the bus driver's method).
    void FailNext(const std::string& function, Failure failure = {});
    const std::vector<FailableCall>& FailableCalls() const {
        return m_failable;
    }

    // What the partner answers to "Send"; an echo where null. Takes a floating value over.
    void AnswerWith(GVariant* reply);
    // Called at each sleep of the resend thread, with the number of sleeps so far.
    std::function<void(int)> on_sleep;

    // While on, all calls and what they change are written down, and what goes to standard output
    // is the channel's.
    void Record(bool on);
    const std::vector<Event>& Events() const {
        return m_events;
    }
    std::string Text() const;  // all events, a line each
    void Forget();             // the events

    // Stand-ins that are known by name.
    static GDBusConnection* Connection();
    static GDBusMethodInvocation* Invocation();
    // Gives `object` a name in the text.
    void Name(const void* object, const std::string& name);

    // By name, what the channel has taken and not released: "proxy#1", "error#2". Values that the
    // partner replied are held until they are released.
    std::set<std::string> Held() const;
    // Whether the channel's mutex is held.
    bool Locked() const {
        return !m_locked.empty();
    }
    // The names that the channel watches, by the vanished handler.
    bool Watches(const std::string& name) const;

    // From here on: for the wrapping functions.
    struct Outcome {
        std::optional<Failure> failure;
        std::size_t event;  // to be completed by its result
    };
    Outcome Begin(const std::string& function, const std::vector<std::string>& arguments,
                  const std::string& method = "", const std::string& subject = "",
                  bool failable = false, bool takes_error = false);
    void End(const Outcome& outcome, const std::string& result);
    void Call(const std::string& function, const std::vector<std::string>& arguments);
    // False when writing the line is planned to fail.
    bool Log(int log_id, int priority, const char* tag, const std::string& text);
    void Handler(const std::string& function, const std::string& arguments);
    void GlibReport(const std::string& text);
    std::optional<Failure> Decide(const std::string& function, const std::string& method,
                                  bool takes_error);
    void Remember(Event event);
    void NoteState(bool with_map = true);
    bool Recording() const {
        return m_recording;
    }

    std::string Of(const void* object) const;    // name of an object
    std::string OfId(guint id) const;            // name of an id
    std::string OfValue(GVariant* value) const;  // content, or name of a reply
    std::string OfError(GError** error) const;
    std::string NewName(const std::string& kind);
    void Hold(const void* object, const std::string& name);
    void Release(const void* object);
    guint NewId(const std::string& kind);
    void ReleaseId(guint id);
    void SetError(GError** error, int code);
    GVariant* Reply(GVariant* value);
    void ReleaseReply(GVariant* value);

    void BeginChannel(TevrolDbusRemote* channel, std::size_t size);
    void EndChannel();
    bool OwnsMutex(const void* mutex) const;
    bool LockMutex(const void* mutex);    // false when it is held already
    bool UnlockMutex(const void* mutex);  // false when it is not held

    struct Thread {
        void* (*start)(void*);
        void* argument;
    };
    std::map<pthread_t, Thread> threads;
    std::map<guint, std::string> watched;
    GVariant* answer = nullptr;
    int sleeps = 0;

private:
    bool m_recording = false;
    std::vector<Event> m_events;
    std::vector<FailableCall> m_failable;
    std::map<std::string, int> m_counters;
    std::map<const void*, std::string> m_names;
    std::map<const void*, std::string> m_held;
    std::map<guint, std::string> m_ids;
    std::set<guint> m_held_ids;
    std::vector<GVariant*> m_replies;  // kept alive, so that their addresses stay theirs
    std::set<const void*> m_locked;
    TevrolDbusRemote* m_channel = nullptr;
    const char* m_channel_end = nullptr;
    bool m_channel_readable = false;
    std::map<std::string, std::string> m_state;
    std::vector<std::string> m_fields;  // their order
};

// Releases a value without a trace in what is recorded.
void Unref(GVariant* value);

// "\n" and the like as one writes them, in double quotes; null as null.
std::string Quoted(const char* text);
