// SPDX-License-Identifier: MIT
// A world without a bus: every function of GIO, GLib, pthread and standard output that the channel
// calls ends here, is written down with all its arguments, and answers what the test wants. It runs
// on one thread and needs no time, so that what the channel does can be compared call by call, and
// a fuzzer can drive it.
//
// tests/support/gio-calls.h is the other recorder, for the tests on a real bus: there the calls go
// through, and only what a test asks for is recorded. Here nothing goes through but values
// (GVariant, GError, the interface description), which are GLib's own.
//
// Works by link-time wrapping (see tests/CMakeLists.txt), which takes in the whole test program:
// tests make the values that a recording must not show by g_variant_new_parsed(), which the channel
// does not use.
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
    // Call: the method or signal, and the name that it is about or that it is sent to.
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
    // Of pthread_create: the handle of the thread that could not be started is written, as glibc
    // does unless there is no memory for a stack.
    bool writes_handle = true;
};

// A call as the channel makes it.
struct MadeCall {
    const char* function;            // "g_bus_get_sync"
    const char* method = "";         // "RequestName", "Send", "SendSignal"
    const char* subject = "";        // the name that it is about, or that it is sent to
    GVariant* parameters = nullptr;  // what it sends
};

// How a call may end. A refused one fails without an error and whatever is planned.
enum class Ending { Succeeds, MayFail, MayFailWithError, IsRefused };

// A call that can fail, as the plan sees it: the first since the world began has the number 1.
struct FailableCall {
    int number;
    std::string function;
    std::string method;
    std::string subject;
    bool takes_error;

    bool IsLike(const FailableCall& other) const {
        return function == other.function && method == other.method;
    }
};

class StubWorld {
public:
    // While one lives, the world or the application is at work, and not the channel.
    class Outside {
    public:
        Outside() {
            ++s_depth;
        }
        ~Outside() {
            --s_depth;
        }
        Outside(const Outside&) = delete;
        Outside& operator=(const Outside&) = delete;

        static bool IsOpen() {
            return s_depth > 0;
        }

    private:
        inline static int s_depth = 0;
    };

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

    // Sees each call before it is decided about.
    std::function<void(const MadeCall&)> on_call;
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

    // Stand-ins that are known by name.
    static GDBusConnection* Connection();
    static GDBusMethodInvocation* Invocation();
    // Gives `object` a name in the text.
    void Name(const void* object, const std::string& name);

    // By name, what the channel has taken and not released: "proxy#1", "error#2". Values that the
    // partner replied are held until they are released.
    std::set<std::string> Held() const;
    std::size_t CountHeld(const std::string& kind) const;
    // Whether the channel's mutex is held.
    bool Locked() const {
        return !m_locked.empty();
    }
    // The names that the channel watches, by the vanished handler, and the senders that it has
    // subscribed to, by their ids.
    const std::map<guint, std::string>& Watched() const {
        return m_watched;
    }
    const std::map<guint, std::string>& Subscribed() const {
        return m_subscribed;
    }
    bool Watches(const std::string& name) const;

    // A thread that the channel has started and that has not ended. Nothing runs it but
    // RunThread(), to its end; a join does, too.
    struct Thread {
        void* (*start)(void*);
        void* argument;
        bool runs;
    };
    const std::map<pthread_t, Thread>& Threads() const {
        return m_threads;
    }
    void* RunThread(pthread_t thread);
    // Whether the handle is one that a failed pthread_create has written.
    bool IsOfNoThread(pthread_t thread) const {
        return m_handles_of_none.count(thread) != 0;
    }

    // What the channel must not do: give up twice, call on what it does not hold, start a second
    // thread.
    const std::vector<std::string>& Misuses() const {
        return m_misuses;
    }

    // From here on: for the wrapping functions.
    struct Outcome {
        std::optional<Failure> failure;
        std::size_t event;  // to be completed by its result
    };
    // What the world writes down is described only where it does.
    template <typename Describe>
    Outcome Begin(const MadeCall& call, Ending ending, const Describe& arguments) {
        const Outside outside;
        const auto failure = Decide(call, ending);
        if (m_recording) {
            RememberCall(call, ending, failure, arguments());
        }
        return {failure, m_events.size()};
    }
    template <typename Describe>
    void End(const Outcome& outcome, const Describe& result) {
        if (m_recording) {
            m_events[outcome.event - 1].text += " = " + result();
        }
    }
    // False when writing the line is planned to fail.
    bool Log(int log_id, int priority, const std::string& tag, const std::string& text);
    void Handler(const std::string& function, const std::string& arguments);
    void GlibReport(const std::string& text);
    void Demand(bool holds, const char* what);
    void NoteState(bool with_map = true);
    bool Recording() const {
        return m_recording;
    }

    std::string Of(const void* object) const;    // name of an object
    std::string OfId(guint id) const;            // name of an id
    std::string OfValue(GVariant* value) const;  // content, or name of a reply
    std::string OfError(GError** error) const;
    // The next of its kind; or `name`, where there is but one.
    void Hold(const void* object, const char* kind);
    void HoldAs(const void* object, const char* name);
    void Release(const void* object);
    bool Holds(const void* object) const;
    guint Watch(const char* name);
    void Unwatch(guint id);  // without effect where the id is none of a watch
    guint Subscribe(const char* sender);
    void Unsubscribe(guint id);
    guint Register();
    void SetError(GError** error, int code);
    GVariant* Reply(GVariant* value);
    void ReleaseReply(GVariant* value);

    void BeginChannel(TevrolDbusRemote* channel, std::size_t size);
    void EndChannel();
    bool OwnsMutex(const void* mutex) const;
    bool LockMutex(const void* mutex);    // false when it is held already
    bool UnlockMutex(const void* mutex);  // false when it is not held

    pthread_t StartThread(void* (*start)(void*), void* argument);
    pthread_t HandleOfNoThread();

    GVariant* answer = nullptr;
    int sleeps = 0;

private:
    std::optional<Failure> Decide(const MadeCall& call, Ending ending);
    std::optional<Failure> Plan(const MadeCall& call, bool takes_error);
    void RememberCall(const MadeCall& call, Ending ending, const std::optional<Failure>& failure,
                      const std::vector<std::string>& arguments);
    void Remember(Event event);
    std::string NewName(const char* kind);
    guint NewId(const char* kind);

    bool m_recording = false;
    std::vector<Event> m_events;
    std::vector<FailableCall> m_failable;
    std::map<std::string, int> m_counters;
    std::map<const void*, std::string> m_names;
    std::map<const void*, std::string> m_held;
    std::map<guint, std::string> m_ids;
    std::set<guint> m_held_ids;
    std::map<guint, std::string> m_watched;
    std::map<guint, std::string> m_subscribed;
    std::map<pthread_t, Thread> m_threads;
    pthread_t m_last_thread = 0;
    std::set<pthread_t> m_handles_of_none;
    std::vector<std::string> m_misuses;
    std::vector<GVariant*> m_replies;  // kept alive, so that their addresses stay theirs
    std::set<const void*> m_locked;
    TevrolDbusRemote* m_channel = nullptr;
    const char* m_channel_end = nullptr;
    bool m_channel_readable = false;
    std::map<std::string, std::string> m_state;
};

// Releases a value without a trace in what is recorded.
void Unref(GVariant* value);

// "\n" and the like as one writes them, in double quotes; null as null.
std::string Quoted(const char* text);
