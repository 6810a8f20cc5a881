// SPDX-License-Identifier: MIT
// The bus with the ends of one channel on it, small enough to search: each state is a value, and
// each thing that may happen next is a step to another state.
//
// A plain end does what TevrolDbusRemote and its mirror image do, thread of repetitions included. A
// tevrol end is the state machine itself, with an owner that carries out its actions. The bus
// reports to each end in order, and each end takes the reports whenever it comes to them. The
// outcome of what a tevrol end asks of the bus may overtake the reports or come after them.
//
// Faults are counted, so that they are finite. Names are numbered anew in every state, in the order
// in which they are found, so that states are finite, too.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tevrol/handshake.h"

namespace tevrol::model {

enum class Kind : std::uint8_t { Plain, Tevrol };
enum class Role : std::uint8_t { Left, Right };

// A unique name; 0 is nobody.
using Name = std::uint8_t;

struct Report {
    enum class What : std::uint8_t { Syn, SynAck, Ack, Gone, Message, Active, StandBy };
    What what = What::Syn;
    Name who = 0;
    bool current = false;  // announced while bound to a partner, and bound to it ever since
};

// In order; a state in which it does not suffice ends the search with an error.
class Inbox {
public:
    bool Empty() const {
        return m_size == 0;
    }
    void Push(Report report);
    Report Pop();
    void Clear() {
        m_size = 0;
    }
    Report* begin() {
        return m_reports;
    }
    Report* end() {
        return m_reports + m_size;
    }

private:
    static constexpr std::uint8_t kCapacity = 24;
    Report m_reports[kCapacity];
    std::uint8_t m_size = 0;
};

// What a plain end adds to its name.
struct PlainEnd {
    enum class Thread : std::uint8_t { Idle, Running, Finishing };
    enum class Owed : std::uint8_t { Nothing, Syn, SynAck, Ack };

    Name bound = 0;
    bool ready = false;
    Name told = 0;
    Owed todo = Owed::Nothing;  // what the callback under way has yet to announce
    Owed owed = Owed::Nothing;  // what the thread has to repeat
    Name owed_to = 0;
    Thread thread = Thread::Idle;
};

// What a tevrol end adds to its name: the machine, and what its owner is about.
struct TevrolEnd {
    enum class Call : std::uint8_t { None, Sent, Done, Refused, Gone };

    Handshake machine;
    bool timer = false;
    Name told = 0;
    // Whether the partner has been bound to this end ever since the announcement on which the
    // readiness rests, or the next one would: then no loss may be told.
    bool bound_there = false;
    bool bound_there_next = false;
    Name watched = 0;  // whose loss the bus reports
    Call announcement = Call::None;
    Stage stage = Stage::Syn;  // of the announcement
    bool current = false;      // as of a report
    Call watch = Call::None;
    Name asked = 0;  // of the watch
};

struct End {
    enum class Life : std::uint8_t {
        Down,  // no process
        Off,   // a process without a connection
        On,
        Cut,  // the bus has closed the connection, which the end has yet to notice
    };
    Kind kind = Kind::Plain;
    Role role = Role::Left;
    Life life = Life::Down;
    Name name = 0;
    Inbox inbox;
    PlainEnd plain;
    TevrolEnd tevrol;
};

// How often each fault may still happen.
struct Faults {
    std::uint8_t crashes = 0;      // of a process, which may start again
    std::uint8_t renewals = 0;     // a plain end is destroyed and made again on the same connection
    std::uint8_t cuts = 0;         // the bus closes the connection of a tevrol end
    std::uint8_t refusals = 0;     // of an announcement or a match; or the outcome is lost
    std::uint8_t link_losses = 0;  // a tevrol end takes its living partner for lost
    std::uint8_t hasty_timers = 0;  // a timer ends while something else is still to happen
    std::uint8_t messages = 0;
    std::uint8_t repeated_syns = 0;  // of a plain end, bound or not
    std::uint8_t own_names = 0;  // its own process pulses the other role's names on its connection
};

// A step to another state: what an end does, or what happens to it.
struct Step {
    std::size_t end;
    const char* what;
    bool by_fault;  // a fault, or a start after one: it may happen, but need not
    bool by_timer = false;
};

class World {
public:
    World(const std::vector<std::pair<Role, Kind>>& ends, Faults faults);

    // Tells of each state that may come next.
    using Visitor = std::function<void(World& next, const Step& step)>;
    void VisitNext(const Visitor& visit) const;

    // What is wrong with this state; empty when nothing is.
    std::string Violation() const;
    // Each role has a process.
    bool IsComplete() const;
    // An end of one role is ready with an end of the other and bound to it, and it with this one.
    bool IsPaired() const;

    // Equal for equal states. Numbers the names anew.
    std::string Digest();

private:
    template <typename Change>
    void Try(const Visitor& visit, const Step& step, Change change) const;
    void VisitFaultsOf(std::size_t index, const Visitor& visit) const;
    void VisitPlain(std::size_t index, const Visitor& visit) const;
    void VisitAnnouncement(std::size_t index, const Visitor& visit,
                           void (*outcome)(End&, PlainEnd::Owed, bool)) const;
    void VisitTevrol(std::size_t index, const Visitor& visit) const;
    void VisitCalls(std::size_t index, const Visitor& visit) const;

    bool IsAlive(Name name) const;
    const End* Find(Name name) const;
    static Name BoundTo(const End& end);
    bool IsBoundTo(Name who, Name to) const;
    static bool IsReadyWith(const End& end, Name partner);
    bool IsQuiet() const;
    Name NewName() const;

    void Join(End& end);
    void Leave(End& end);
    void Start(End& end);
    void Crash(End& end);
    void Emit(const End& end, Report::What stage);
    void LetGo(Name who);

    void Take(End& end);
    void Bind(End& end, Name partner, PlainEnd::Owed answer);
    static void Repeat(End& end, PlainEnd::Owed stage, bool ok);
    static void Conclude(End& end, PlainEnd::Owed stage, bool ok);

    void TakeByMachine(End& end);
    void Do(End& end, const Actions& actions);
    static void GoOff(End& end);

    std::vector<End> m_ends;
    std::array<std::vector<std::size_t>, 2>
        m_owners;  // of each role's name: the first one, and who waits
    Faults m_faults;
    std::string m_violation;
};

}  // namespace tevrol::model
