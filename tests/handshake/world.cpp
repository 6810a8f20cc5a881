// SPDX-License-Identifier: MIT
#include "tests/handshake/world.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace tevrol::model {
namespace {

using What = Report::What;
using Owed = PlainEnd::Owed;
using Thread = PlainEnd::Thread;
using Call = TevrolEnd::Call;
using Life = End::Life;

What ReportOf(Owed stage) {
    switch (stage) {
        case Owed::Syn:
            return What::Syn;
        case Owed::SynAck:
            return What::SynAck;
        default:
            return What::Ack;
    }
}

What ReportOf(Stage stage) {
    return static_cast<What>(stage);
}

// Names are numbers here and texts there.
std::string Text(Name name) {
    return std::string(1, static_cast<char>(name));
}

Name Number(const std::string& text) {
    return text.empty() ? Name{0} : static_cast<Name>(text[0]);
}

bool Listens(const End& end) {
    return end.life == Life::On;
}

bool HasReport(const End& end, What what, Name who) {
    End copy = end;
    return std::any_of(copy.inbox.begin(), copy.inbox.end(), [&](const Report& report) {
        return report.what == what && report.who == who;
    });
}

const char* TakingText(What what) {
    static const std::array<const char*, 7> texts = {
        "hears SYN",       "hears SYN_ACK", "hears ACK", "hears of a loss",
        "takes a message", "is active",     "stands by"};
    return texts.at(static_cast<std::size_t>(what));
}

}  // namespace

void Inbox::Push(Report report) {
    if (m_size == kCapacity) {
        throw std::length_error("an inbox of the model is full");
    }
    m_reports[m_size++] = report;
}

Report Inbox::Pop() {
    const Report first = m_reports[0];
    std::move(begin() + 1, end(), begin());
    --m_size;
    return first;
}

World::World(const std::vector<std::pair<Role, Kind>>& ends, Faults faults) : m_faults(faults) {
    for (const auto& [role, kind] : ends) {
        End end;
        end.role = role;
        end.kind = kind;
        m_ends.push_back(end);
    }
}

// ---- What may happen next ----

template <typename Change>
void World::Try(const Visitor& visit, const Step& step, Change change) const {
    World next = *this;
    change(next, next.m_ends[step.end]);
    const End& before = m_ends[step.end];
    if (BoundTo(before) != 0 && BoundTo(before) != BoundTo(next.m_ends[step.end])) {
        next.LetGo(before.name);
    }
    visit(next, step);
}

void World::VisitNext(const Visitor& visit) const {
    for (std::size_t index = 0; index < m_ends.size(); ++index) {
        VisitFaultsOf(index, visit);
        if (m_ends[index].kind == Kind::Plain) {
            VisitPlain(index, visit);
        } else {
            VisitTevrol(index, visit);
        }
    }
}

void World::VisitFaultsOf(std::size_t index, const Visitor& visit) const {
    const End& end = m_ends[index];
    if (end.life == Life::Down) {
        Try(visit, {index, "starts", true}, [](World& next, End& it) { next.Start(it); });
        return;
    }
    if (m_faults.crashes > 0) {
        Try(visit, {index, "crashes", true}, [](World& next, End& it) {
            --next.m_faults.crashes;
            next.Crash(it);
        });
    }
    if (end.life != Life::On) {
        return;
    }
    if (end.kind == Kind::Plain && m_faults.renewals > 0) {
        Try(visit, {index, "is destroyed and made again", true}, [](World& next, End& it) {
            --next.m_faults.renewals;
            it.inbox.Clear();
            it.plain = PlainEnd();
            it.plain.todo = Owed::Syn;
        });
    }
    if (end.kind == Kind::Plain && m_faults.repeated_syns > 0 && end.plain.todo == Owed::Nothing) {
        Try(visit, {index, "announces SYN again", true}, [](World& next, End& it) {
            --next.m_faults.repeated_syns;
            next.Emit(it, What::Syn);
        });
    }
    if (end.kind == Kind::Tevrol && m_faults.cuts > 0) {
        Try(visit, {index, "is cut off", true}, [](World& next, End& it) {
            --next.m_faults.cuts;
            next.Leave(it);
            it.life = Life::Cut;
            it.tevrol.bound_there = false;
        });
    }
    if (m_faults.own_names > 0) {
        for (const What stage : {What::Syn, What::SynAck, What::Ack}) {
            Try(visit, {index, "hears its own process", true}, [stage](World& next, End& it) {
                --next.m_faults.own_names;
                it.inbox.Push({stage, it.name});
            });
        }
    }
    // Only a ready end sends; a plain end takes a message without effect.
    const Name partner =
        end.kind == Kind::Plain ? (end.plain.ready ? end.plain.bound : Name{0}) : end.tevrol.told;
    const End* receiver = Find(partner);
    if (m_faults.messages > 0 && receiver != nullptr && receiver->kind == Kind::Tevrol) {
        const auto to = static_cast<std::size_t>(receiver - m_ends.data());
        Try(visit, {index, "sends a message", true}, [to](World& next, End& it) {
            --next.m_faults.messages;
            next.m_ends[to].inbox.Push({What::Message, it.name});
        });
    }
}

// ---- A plain end ----

void World::VisitPlain(std::size_t index, const Visitor& visit) const {
    const End& end = m_ends[index];
    if (end.life != Life::On) {
        return;
    }
    // While a callback has an announcement to make, it holds the lock.
    if (end.plain.todo != Owed::Nothing) {
        VisitAnnouncement(index, visit, Conclude);
        return;
    }
    if (!end.inbox.Empty()) {
        End copy = end;
        Try(visit, {index, TakingText(copy.inbox.begin()->what), false},
            [](World& next, End& it) { next.Take(it); });
    }
    if (end.plain.thread == Thread::Running) {
        if (end.plain.owed_to == end.plain.bound && end.plain.owed != Owed::Nothing) {
            VisitAnnouncement(index, visit, Repeat);
        } else {
            Try(visit, {index, "drops what it owes", false}, [](World&, End& it) {
                it.plain.owed = Owed::Nothing;
                it.plain.thread = Thread::Finishing;
            });
        }
    }
    if (end.plain.thread == Thread::Finishing) {
        Try(visit, {index, "clears the record of its thread", false},
            [](World&, End& it) { it.plain.thread = Thread::Idle; });
    }
}

// An announcement that is made, one that is refused, and one that is made and not confirmed.
void World::VisitAnnouncement(std::size_t index, const Visitor& visit,
                              void (*outcome)(End&, Owed, bool)) const {
    const PlainEnd& plain = m_ends[index].plain;
    const Owed stage = plain.todo != Owed::Nothing ? plain.todo : plain.owed;
    static const std::array<const char*, 4> texts = {"", "announces SYN", "announces SYN_ACK",
                                                     "announces ACK"};
    const char* text = texts.at(static_cast<std::size_t>(stage));
    Try(visit, {index, text, false}, [=](World& next, End& it) {
        next.Emit(it, ReportOf(stage));
        outcome(it, stage, true);
    });
    if (m_faults.refusals > 0) {
        Try(visit, {index, "is refused an announcement", true}, [=](World& next, End& it) {
            --next.m_faults.refusals;
            outcome(it, stage, false);
        });
        Try(visit, {index, "announces without being told so", true}, [=](World& next, End& it) {
            --next.m_faults.refusals;
            next.Emit(it, ReportOf(stage));
            outcome(it, stage, false);
        });
    }
}

// The end of an announcement by a callback or, with `Repeat`, by the thread.
void World::Conclude(End& end, Owed stage, bool ok) {
    PlainEnd& plain = end.plain;
    plain.todo = Owed::Nothing;
    if (ok) {
        plain.ready = stage == Owed::Ack;
        plain.told = plain.ready ? plain.bound : plain.told;
    } else if (stage != Owed::Syn) {
        plain.owed = stage;
        plain.owed_to = plain.bound;
        plain.thread = plain.thread == Thread::Idle ? Thread::Running : plain.thread;
    }
}

void World::Repeat(End& end, Owed stage, bool ok) {
    end.plain.owed = Owed::Nothing;
    Conclude(end, stage, ok);
    if (end.plain.owed == Owed::Nothing) {
        end.plain.thread = Thread::Finishing;
    }
}

void World::Take(End& end) {
    PlainEnd& plain = end.plain;
    const Report report = end.inbox.Pop();
    if (report.who == end.name) {
        return;
    }
    switch (report.what) {
        case What::Gone:
            if (plain.bound == report.who) {
                plain.bound = 0;
                plain.ready = false;
                plain.told = 0;
            }
            break;
        case What::Syn:
            Bind(end, report.who, Owed::SynAck);
            break;
        case What::SynAck:
            Bind(end, report.who, Owed::Ack);
            break;
        case What::Ack:
            if (plain.bound != 0) {
                plain.ready = true;
                plain.told = report.who;
            }
            break;
        default:
            break;
    }
}

void World::Bind(End& end, Name partner, Owed answer) {
    if (end.plain.bound != 0) {
        return;
    }
    end.plain.bound = partner;
    end.plain.todo = answer;
    if (!IsAlive(partner)) {
        end.inbox.Push({What::Gone, partner});
    }
}

// ---- A tevrol end ----

void World::VisitTevrol(std::size_t index, const Visitor& visit) const {
    const End& end = m_ends[index];
    if (end.life == Life::Off) {
        Try(visit, {index, "joins the bus", false}, [](World& next, End& it) { next.Join(it); });
        return;
    }
    if (end.life == Life::Down) {
        return;
    }
    if (!end.inbox.Empty()) {
        End copy = end;
        Try(visit, {index, TakingText(copy.inbox.begin()->what), false},
            [](World& next, End& it) { next.TakeByMachine(it); });
    }
    if (end.life == Life::Cut) {
        Try(visit, {index, "notices that it is cut off", false}, [](World& next, End& it) {
            next.Do(it, it.tevrol.machine.Disconnected());
            GoOff(it);
        });
        return;
    }
    VisitCalls(index, visit);
    if (end.tevrol.timer && (IsQuiet() || m_faults.hasty_timers > 0)) {
        const bool hasty = !IsQuiet();
        Try(visit, {index, "times out", hasty, !hasty}, [hasty](World& next, End& it) {
            if (hasty) {
                --next.m_faults.hasty_timers;
            }
            it.tevrol.timer = false;
            next.Do(it, it.tevrol.machine.TimedOut());
        });
    }
    if (end.tevrol.told != 0 && m_faults.link_losses > 0) {
        Try(visit, {index, "loses the link", true}, [](World& next, End& it) {
            --next.m_faults.link_losses;
            it.tevrol.bound_there = false;
            next.Do(it, it.tevrol.machine.Vanished(Text(it.tevrol.told)));
        });
    }
}

// What it asks of the bus: first the bus does it, then the end hears how it went.
void World::VisitCalls(std::size_t index, const Visitor& visit) const {
    const TevrolEnd& tevrol = m_ends[index].tevrol;
    if (tevrol.announcement == Call::Sent) {
        static const std::array<const char*, 3> texts = {"announces SYN", "announces SYN_ACK",
                                                         "announces ACK"};
        const What stage = ReportOf(tevrol.stage);
        Try(visit, {index, texts.at(static_cast<std::size_t>(tevrol.stage)), false},
            [stage](World& next, End& it) {
                next.Emit(it, stage);
                it.tevrol.announcement = Call::Done;
            });
        if (m_faults.refusals > 0) {
            Try(visit, {index, "is refused an announcement", true}, [](World& next, End& it) {
                --next.m_faults.refusals;
                it.tevrol.announcement = Call::Refused;
            });
            Try(visit, {index, "announces without being told so", true},
                [stage](World& next, End& it) {
                    --next.m_faults.refusals;
                    next.Emit(it, stage);
                    it.tevrol.announcement = Call::Refused;
                });
        }
    } else if (tevrol.announcement != Call::None) {
        Try(visit, {index, "is told how its announcement went", false}, [](World& next, End& it) {
            const bool ok = it.tevrol.announcement == Call::Done;
            it.tevrol.announcement = Call::None;
            next.Do(it, it.tevrol.machine.Announced(it.tevrol.stage, ok));
        });
    }
    if (tevrol.watch == Call::Sent) {
        Try(visit, {index, "has its partner watched", false}, [](World& next, End& it) {
            it.tevrol.watched = it.tevrol.asked;
            it.tevrol.watch = next.IsAlive(it.tevrol.asked) ? Call::Done : Call::Gone;
        });
        if (m_faults.refusals > 0) {
            Try(visit, {index, "is refused a match", true}, [](World& next, End& it) {
                --next.m_faults.refusals;
                it.tevrol.watch = Call::Refused;
            });
        }
    } else if (tevrol.watch != Call::None) {
        Try(visit, {index, "is told whether its partner is watched", false},
            [](World& next, End& it) {
                const Call outcome = it.tevrol.watch;
                const std::string peer = Text(it.tevrol.asked);
                it.tevrol.watch = Call::None;
                next.Do(it, outcome == Call::Gone
                                ? it.tevrol.machine.Vanished(peer)
                                : it.tevrol.machine.Watched(peer, outcome == Call::Done));
            });
    }
}

void World::TakeByMachine(End& end) {
    Handshake& machine = end.tevrol.machine;
    const Report report = end.inbox.Pop();
    const bool from_other = !machine.Partner().empty() && machine.Partner() != Text(report.who);
    if ((report.what == What::SynAck || report.what == What::Ack) && !from_other) {
        end.tevrol.bound_there_next = report.current && IsBoundTo(report.who, end.name);
    }
    switch (report.what) {
        case What::Syn:
        case What::SynAck:
        case What::Ack:
            Do(end, machine.Released(static_cast<Stage>(report.what), Text(report.who)));
            break;
        case What::Gone:
            Do(end, machine.Vanished(Text(report.who)));
            break;
        case What::Message:
            if (Text(report.who) == machine.Partner()) {
                Do(end, machine.Heard());
            }
            break;
        case What::Active:
        case What::StandBy:
            Do(end, machine.Active(report.what == What::Active));
            break;
    }
}

void World::Do(End& end, const Actions& actions) {
    TevrolEnd& tevrol = end.tevrol;
    bool rejoins = false;
    for (const Action& action : actions) {
        switch (action.kind) {
            case Action::Kind::Announce:
                if (tevrol.announcement != Call::None) {
                    m_violation = "two announcements of an end at a time";
                }
                if (action.stage == Stage::Syn && !tevrol.machine.Partner().empty()) {
                    m_violation = "a bound end announces SYN";
                }
                tevrol.announcement = Call::Sent;
                tevrol.stage = action.stage;
                tevrol.current = !tevrol.machine.Partner().empty();
                break;
            case Action::Kind::Watch:
                tevrol.watch = Call::Sent;
                tevrol.asked = Number(action.peer);
                break;
            case Action::Kind::Unwatch:
                tevrol.watch = Call::None;
                tevrol.watched = 0;
                break;
            case Action::Kind::SetTimer:
            case Action::Kind::StopTimer:
                tevrol.timer = action.kind == Action::Kind::SetTimer;
                break;
            case Action::Kind::TellReady:
                if (tevrol.told != 0) {
                    m_violation = "ready is told of an end that is ready";
                }
                tevrol.told = Number(action.peer);
                tevrol.bound_there = tevrol.bound_there_next;
                break;
            case Action::Kind::TellLost:
                if (tevrol.told != Number(action.peer)) {
                    m_violation = "a loss is told of an end that is not ready";
                }
                if (tevrol.bound_there && IsAlive(tevrol.told)) {
                    m_violation = "a loss is told of a partner that never let go";
                }
                tevrol.told = 0;
                break;
            case Action::Kind::Rejoin:
                rejoins = true;
                break;
        }
    }
    if (rejoins) {
        Leave(end);
        if (!tevrol.machine.Disconnected().empty()) {
            m_violation = "an end that leaves for a rejoin has more to do";
        }
        GoOff(end);
    }
}

// Without a connection from here on. The machine lives on, and what was asked of the bus is void.
void World::GoOff(End& end) {
    TevrolEnd fresh;
    fresh.machine = end.tevrol.machine;
    fresh.told = end.tevrol.told;
    end.tevrol = fresh;
    end.life = Life::Off;
    end.name = 0;
    end.inbox.Clear();
}

// ---- The bus ----

Name World::NewName() const {
    return static_cast<Name>(1 + m_ends.size() * 32);  // numbered anew by Digest()
}

void World::Join(End& end) {
    end.name = NewName();
    end.life = Life::On;
    if (end.kind == Kind::Plain) {
        end.plain.todo = Owed::Syn;
        return;
    }
    auto& owners = m_owners[static_cast<std::size_t>(end.role)];
    owners.push_back(static_cast<std::size_t>(&end - m_ends.data()));
    Do(end, end.tevrol.machine.Connected(Text(end.name)));
    end.inbox.Push({owners.size() == 1 ? What::Active : What::StandBy, 0});
}

void World::Leave(End& end) {
    end.life = Life::Off;
    for (End& other : m_ends) {
        const Name watched = other.kind == Kind::Plain ? other.plain.bound : other.tevrol.watched;
        if (Listens(other) && watched == end.name) {
            other.inbox.Push({What::Gone, end.name});
        }
    }
    auto& owners = m_owners[static_cast<std::size_t>(end.role)];
    const auto index = static_cast<std::size_t>(&end - m_ends.data());
    const auto place = std::find(owners.begin(), owners.end(), index);
    if (place == owners.end()) {
        return;
    }
    const bool owned = place == owners.begin();
    owners.erase(place);
    if (owned && !owners.empty()) {
        m_ends[owners.front()].inbox.Push({What::Active, 0});
    }
}

void World::Start(End& end) {
    end.life = Life::Off;
    if (end.kind == Kind::Plain) {
        Join(end);
    }
}

void World::Crash(End& end) {
    if (end.life == Life::On) {
        Leave(end);
    }
    End fresh;
    fresh.role = end.role;
    fresh.kind = end.kind;
    end = fresh;
}

void World::Emit(const End& end, What stage) {
    for (End& other : m_ends) {
        if (Listens(other) && other.role != end.role) {
            const bool current =
                end.kind == Kind::Plain ? end.plain.bound != 0 : end.tevrol.current;
            other.inbox.Push({stage, end.name, current});
        }
    }
}

// The end of that name is not bound to its partner any more.
void World::LetGo(Name who) {
    for (End& end : m_ends) {
        for (Report& report : end.inbox) {
            report.current = report.current && report.who != who;
        }
        if (end.name == who) {
            end.tevrol.current = false;
        }
        if (BoundTo(end) == who) {
            end.tevrol.bound_there = false;
            end.tevrol.bound_there_next = false;
        }
    }
}

// ---- What is asked of a state ----

const End* World::Find(Name name) const {
    const auto end = std::find_if(m_ends.begin(), m_ends.end(), [&](const End& candidate) {
        return name != 0 && candidate.name == name && candidate.life == Life::On;
    });
    return end == m_ends.end() ? nullptr : &*end;
}

bool World::IsAlive(Name name) const {
    return Find(name) != nullptr;
}

Name World::BoundTo(const End& end) {
    return end.kind == Kind::Plain ? end.plain.bound : Number(end.tevrol.machine.Partner());
}

bool World::IsBoundTo(Name who, Name to) const {
    const End* end = Find(who);
    return end != nullptr && to != 0 && BoundTo(*end) == to;
}

bool World::IsQuiet() const {
    return std::all_of(m_ends.begin(), m_ends.end(), [](const End& end) {
        Inbox inbox = end.inbox;
        return inbox.Empty() && end.life != Life::Off && end.life != Life::Cut &&
               end.plain.todo == Owed::Nothing && end.plain.thread == Thread::Idle &&
               end.tevrol.announcement == Call::None && end.tevrol.watch == Call::None;
    });
}

bool World::IsComplete() const {
    const auto has = [&](Role role) {
        return std::any_of(m_ends.begin(), m_ends.end(), [&](const End& end) {
            return end.role == role && end.life != Life::Down;
        });
    };
    return has(Role::Left) && has(Role::Right);
}

bool World::IsReadyWith(const End& end, Name partner) {
    if (end.kind == Kind::Plain) {
        return end.plain.ready && end.plain.bound == partner && end.plain.told == partner;
    }
    return end.tevrol.machine.IsReady() && end.tevrol.told == partner;
}

bool World::IsPaired() const {
    for (const End& left : m_ends) {
        for (const End& right : m_ends) {
            if (left.role != right.role && IsAlive(left.name) && IsAlive(right.name) &&
                IsReadyWith(left, right.name) && IsReadyWith(right, left.name)) {
                return true;
            }
        }
    }
    return false;
}

std::string World::Violation() const {
    if (!m_violation.empty()) {
        return m_violation;
    }
    for (const End& end : m_ends) {
        const Handshake& machine = end.tevrol.machine;
        const Name partner = Number(machine.Partner());
        if (end.kind == Kind::Plain || end.life == Life::Down) {
            continue;
        }
        if (machine.IsReady() != (end.tevrol.told != 0) ||
            (machine.IsReady() && partner != end.tevrol.told)) {
            return "an end is ready with another partner than its application was told";
        }
        if (partner != 0 && partner == end.name) {
            return "an end is its own partner";
        }
        if (end.life != Life::On) {
            continue;
        }
        if (machine.IsReady() && end.tevrol.watched != partner) {
            return "an end is ready with a partner whose loss it would not hear of";
        }
        if (machine.IsReady() && !IsAlive(partner) && !HasReport(end, What::Gone, partner)) {
            return "an end is ready with nobody";
        }
        const auto& owners = m_owners[static_cast<std::size_t>(end.role)];
        const bool owns = !owners.empty() && &m_ends[owners.front()] == &end;
        const bool acts = partner != 0 || end.tevrol.announcement != Call::None;
        if (acts && !owns) {
            return "an end that stands by acts";
        }
        if (machine.m_active && !end.tevrol.timer) {
            return "an active end waits without a timer";
        }
    }
    return {};
}

// ---- As a value ----

namespace {

class Writer {
public:
    // Renumbers `name` in place.
    void Renumber(Name& name) {
        if (name == 0) {
            return;
        }
        if (m_numbers[name] == 0) {
            m_numbers[name] = ++m_last;
        }
        name = m_numbers[name];
    }
    void Renumber(std::string& name) {
        Name number = Number(name);
        Renumber(number);
        name = number == 0 ? std::string() : Text(number);
    }
    template <typename... Values>
    void Write(Values... values) {
        (m_text.push_back(static_cast<char>(values)), ...);
    }
    std::string Take() {
        return std::move(m_text);
    }

private:
    std::array<Name, 256> m_numbers{};
    Name m_last = 0;
    std::string m_text;
};

void Write(Writer& writer, PlainEnd& plain) {
    if (plain.owed == Owed::Nothing) {
        plain.owed_to = 0;
    }
    writer.Renumber(plain.bound);
    writer.Renumber(plain.told);
    writer.Renumber(plain.owed_to);
    writer.Write(plain.bound, plain.ready, plain.told, plain.todo, plain.owed, plain.owed_to,
                 plain.thread);
}

void Write(Writer& writer, Handshake& machine) {
    const auto stage = [](const std::optional<Stage>& value) {
        return value ? 1 + static_cast<int>(*value) : 0;
    };
    writer.Renumber(machine.m_own_name);
    writer.Renumber(machine.m_partner);
    writer.Write(Number(machine.m_own_name), machine.m_active, Number(machine.m_partner),
                 machine.m_watched, machine.m_answer, machine.m_syn_ack_first,
                 machine.m_acknowledged, machine.m_ready, machine.m_begun_anew, machine.m_heard,
                 stage(machine.m_announcing), stage(machine.m_next), machine.m_attempt);
}

void Write(Writer& writer, TevrolEnd& tevrol) {
    if (tevrol.announcement == Call::None) {
        tevrol.stage = Stage::Syn;
        tevrol.current = false;
    }
    if (tevrol.watch == Call::None) {
        tevrol.asked = 0;
    }
    Write(writer, tevrol.machine);
    writer.Renumber(tevrol.told);
    writer.Renumber(tevrol.watched);
    writer.Renumber(tevrol.asked);
    writer.Write(tevrol.timer, tevrol.told, tevrol.bound_there, tevrol.bound_there_next,
                 tevrol.watched, tevrol.announcement, tevrol.stage, tevrol.current, tevrol.watch,
                 tevrol.asked);
}

}  // namespace

std::string World::Digest() {
    Writer writer;
    for (End& end : m_ends) {
        writer.Renumber(end.name);
        writer.Write(end.life, end.name, end.inbox.end() - end.inbox.begin());
        for (Report& report : end.inbox) {
            writer.Renumber(report.who);
            writer.Write(report.what, report.who, report.current);
        }
        if (end.kind == Kind::Plain) {
            Write(writer, end.plain);
        } else {
            Write(writer, end.tevrol);
        }
    }
    for (const auto& owners : m_owners) {
        writer.Write(owners.size());
        for (const std::size_t owner : owners) {
            writer.Write(owner);
        }
    }
    writer.Write(m_faults.crashes, m_faults.renewals, m_faults.cuts, m_faults.refusals,
                 m_faults.link_losses, m_faults.hasty_timers, m_faults.messages, m_faults.own_names,
                 m_faults.repeated_syns);
    return writer.Take();
}

}  // namespace tevrol::model
