// Each call that can fail, at each place where an operation makes it, failed in every way, and the
// operation repeated while the failure lasts and when it is over. What must hold in each case: the
// operation ends, the log tells what it has to, nothing is lost, once nothing fails any more the
// operation does its work again, and the channel can find a partner afterwards or, where what it
// needs for that was refused, be destroyed.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <utility>

#include "platform/dlog.h"
#include "tests/conformance/conformance-test.h"

namespace {

using Channel = TevrolDbusRemote;

// ---- What is done ----

// The partners of the runs, one after the other, and the one that is found when all is over.
constexpr const char* kPartners[] = {":1.5", ":1.6", ":1.7"};
constexpr const char* kLastPartner = ":1.9";

// Something that the channel `life` does or undergoes, with the partner of that name.
using Step = std::function<void(ChannelLife& life, const std::string& partner)>;

struct Scenario {
    const char* name;
    std::function<void(ChannelLife&)> prepare;  // without a failure, once
    // Brings the channel to where the operation begins, before each run; empty where the operation
    // happens once in a channel's life.
    Step begin;
    Step act;
};

void Nothing(ChannelLife& /*life*/) {}

void Anywhere(ChannelLife& /*life*/, const std::string& /*partner*/) {}

void Construct(ChannelLife& life) {
    life.Construct();
}

void ConstructReady(ChannelLife& life) {
    life.ConstructReady();
}

void ConstructReadyWithDefaultHandlers(ChannelLife& life) {
    life.ConstructReady(StubChannel::Handlers::Default);
}

void HearSyn(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_SynNameOwnerChanged, partner);
}

void HearSynAck(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_SynAckNameOwnerChanged, partner);
}

void HearAck(ChannelLife& life, const std::string& partner) {
    life.Hear(&Channel::cb_AckNameOwnerChanged, partner);
}

// The bound partner leaves, as far as the bus would tell the channel of it.
void LosePartner(ChannelLife& life) {
    const std::string partner = life.channel->m_partner_dbus_name;
    if (life.world.Watches(partner)) {
        life.Lose(partner);
        EXPECT_EQ(life.channel->m_partner_dbus_name, "");
    }
}

// Where there is a resend thread, it does its work: an announcement that never succeeds is repeated
// until the partner leaves.
void RunThread(ChannelLife& life, const std::string& /*partner*/) {
    if (life.channel->m_timerThread == 0) {
        return;
    }
    constexpr int kPasses = 4;
    life.world.on_sleep = [&life, last = life.world.sleeps + kPasses](int sleeps) {
        if (sleeps == last) {
            LosePartner(life);
        }
    };
    Channel::TimerThread(life.channel.get());
    life.world.on_sleep = nullptr;
}

// Nobody is bound any more, and the resend thread has ended.
void ComeFree(ChannelLife& life, const std::string& partner) {
    LosePartner(life);
    RunThread(life, partner);
}

Step FreeAnd(const Step& step) {
    return [step](ChannelLife& life, const std::string& partner) {
        ComeFree(life, partner);
        step(life, partner);
    };
}

// The stage, with its announcement refused, whatever else is planned.
Step Refused(const Step& stage) {
    return [stage](ChannelLife& life, const std::string& partner) {
        const auto planned = life.world.plan;
        life.world.plan =
            [planned, refused = false](const FailableCall& call) mutable -> std::optional<Failure> {
            auto failure = planned ? planned(call) : std::nullopt;
            if (call.method == "RequestName" && !refused) {
                refused = true;
                failure = failure ? failure : Failure{};
            }
            return failure;
        };
        stage(life, partner);
        life.world.plan = planned;
    };
}

// An announcement of the stage is owed: the last one, or a new one to another partner.
Step Owing(const Step& stage) {
    return [stage](ChannelLife& life, const std::string& partner) {
        if (life.channel->m_resendHandshake.empty()) {
            FreeAnd(Refused(stage))(life, partner);
        }
    };
}

void RunPass(ChannelLife& life, const std::string& /*partner*/) {
    Channel::OnResendHandshake(life.channel.get());
}

GVariant* Payload() {
    return g_variant_new_parsed("([byte 0x61, 0x00, 0xff],)");
}

void Receive(ChannelLife& life, const std::string& /*partner*/) {
    life.Receive(Payload());
}

void ReceiveSignal(ChannelLife& life, const std::string& /*partner*/) {
    life.ReceiveSignal(Payload());
}

void Request(ChannelLife& life, const std::string& /*partner*/) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendMessage(data);
}

void Notify(ChannelLife& life, const std::string& /*partner*/) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendNotification(data, life.channel->m_partner_dbus_name);
}

void Lose(ChannelLife& life, const std::string& partner) {
    life.Lose(partner);
}

void Destroy(ChannelLife& life, const std::string& /*partner*/) {
    life.channel.reset();
}

// From construction, or from the loss of another partner, to the loss of this one, as far as the
// bus would tell the channel of it.
void Live(ChannelLife& life, const std::string& partner) {
    if (life.channel == nullptr) {
        life.Construct();
    }
    const Channel& channel = *life.channel;
    if (channel.m_notification_watch_syn == 0) {
        return;
    }
    HearSyn(life, partner);
    RunThread(life, partner);
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_SYN_ACK &&
        channel.m_notification_watch_ack != 0) {
        HearAck(life, partner);
    }
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_ACK && channel.m_signal_id != 0) {
        Notify(life, partner);
        Receive(life, partner);
    }
    LosePartner(life);
}

std::vector<Scenario> Scenarios() {
    const auto construct = [](ChannelLife& life, const std::string&) { Construct(life); };
    const auto bound = [](ChannelLife& life) { life.ConstructBound(); };
    const auto owing = [](ChannelLife& life) {
        Construct(life);
        Refused(HearSyn)(life, kPartners[0]);
    };
    return {
        {"construction", Nothing, nullptr, construct},
        {"SYN stage", Construct, ComeFree, HearSyn},
        {"SYN_ACK stage", Construct, ComeFree, HearSynAck},
        {"SYN stage, announcement refused", Construct, ComeFree, Refused(HearSyn)},
        {"SYN_ACK stage, announcement refused", Construct, ComeFree, Refused(HearSynAck)},
        {"ACK stage", Construct, FreeAnd(HearSyn), HearAck},
        {"loss", Construct, FreeAnd(HearSynAck), Lose},
        {"resend pass of the SYN_ACK", Construct, Owing(HearSyn), RunPass},
        {"resend pass of the ACK", Construct, Owing(HearSynAck), RunPass},
        {"resend thread of the SYN_ACK", Construct, FreeAnd(Refused(HearSyn)), RunThread},
        {"resend thread of the ACK", Construct, FreeAnd(Refused(HearSynAck)), RunThread},
        {"request", ConstructReady, Anywhere, Request},
        {"request without a partner", Construct, Anywhere, Request},
        {"incoming request", ConstructReady, Anywhere, Receive},
        {"incoming request, default handler", ConstructReadyWithDefaultHandlers, Anywhere, Receive},
        {"notification", ConstructReady, Anywhere, Notify},
        {"incoming notification", ConstructReady, Anywhere, ReceiveSignal},
        {"incoming notification, default handler", ConstructReadyWithDefaultHandlers, Anywhere,
         ReceiveSignal},
        {"teardown with nobody bound", Construct, nullptr, Destroy},
        {"teardown with a partner bound", bound, nullptr, Destroy},
        {"teardown with a ready partner", ConstructReady, nullptr, Destroy},
        {"teardown with a resend pending", owing, nullptr, Destroy},
        {"construction to loss", Nothing, Anywhere, Live},
    };
}

// ---- How it fails ----

enum class Extent { Once, Twice, EveryOneOfItsKind, EverythingFromThere };

struct Way {
    std::string name;
    Failure failure;
};

std::vector<Way> WaysToFail(const FailableCall& call) {
    std::vector<Way> ways = {{"without an error", {false, {}}}};
    if (call.takes_error) {
        ways.push_back({"with an error", {true, {}}});
    }
    if (call.method == "RequestName") {
        for (const guint32 code : {2U, 3U, 4U, 0U, 99U}) {
            ways.push_back({"with code " + std::to_string(code), {false, code}});
        }
    }
    if (call.method == "ReleaseName") {  // 2: non-existent, 3: not the owner
        ways.push_back({"with code 2", {false, 2U}});
        ways.push_back({"with code 3", {false, 3U}});
    }
    return ways;
}

const char* ToString(Extent extent) {
    switch (extent) {
        case Extent::Once:
            return "once";
        case Extent::Twice:
            return "twice";
        case Extent::EveryOneOfItsKind:
            return "always";
        case Extent::EverythingFromThere:
            return "with all that follows";
    }
    return "";
}

// Fails `victim` and as much of what follows, in this run of the operation and in the next ones, as
// `extent` says.
class Plan {
public:
    Plan(FailableCall victim, const Failure& failure, Extent extent)
        : m_victim(std::move(victim)), m_failure(failure), m_extent(extent) {}

    std::optional<Failure> Decide(const FailableCall& call) {
        if (call.number < m_victim.number || !Concerns(call)) {
            return std::nullopt;
        }
        ++m_failed;
        Failure chosen = m_failure;
        if (!call.IsLike(m_victim)) {
            chosen.code.reset();
        }
        return chosen;
    }

    int Failed() const {
        return m_failed;
    }

private:
    bool Concerns(const FailableCall& call) const {
        switch (m_extent) {
            case Extent::Once:
                return m_failed == 0;  // the victim is the first
            case Extent::Twice:
                return m_failed < 2 && call.IsLike(m_victim);
            case Extent::EveryOneOfItsKind:
                return call.IsLike(m_victim);
            case Extent::EverythingFromThere:
                return true;
        }
        return false;
    }

    const FailableCall m_victim;
    const Failure m_failure;
    const Extent m_extent;
    int m_failed = 0;
};

// ---- What must follow ----

using Lines = std::vector<std::pair<int, std::string>>;  // priority and message

// The lines that come of an announcement that did not succeed, by who made it.
Lines LinesOfAnnouncer(const std::string& announcer, const std::string& name) {
    if (announcer == "TevrolDbusRemote") {
        return {};  // made once
    }
    if (announcer == "OnResendHandshake") {
        return {{DLOG_DEBUG, "Failed to broadcasted: " + name + ". Will try once again\n"}};
    }
    return {{DLOG_DEBUG, "Failed to broadcast: " + name + ". Requested resend\n"}};
}

// The log lines that must follow a failed call at once.
Lines LinesAfter(const Event& call, const std::string& announcer) {
    static const std::map<std::string, std::string> errors = {
        {"g_bus_get_sync", "Error while connecting to system bus [24] failed on purpose\n\n"},
        {"g_dbus_connection_register_object",
         "Error while registering object [24] failed on purpose\n\n"},
        {"g_dbus_proxy_new_sync", "Error while registering proxy  failed on purpose\n\n"},
        {"g_dbus_proxy_call_sync", "Error while sending message [24] failed on purpose\n\n"},
        {"g_dbus_connection_emit_signal", "Error while sending signal [24] failed on purpose\n\n"},
        {"RequestName", "Error during request name call [24] failed on purpose\n\n"}};
    Lines lines;
    const auto error = errors.find(call.method.empty() ? call.function : call.method);
    if (call.with_error && error != errors.end()) {
        lines.emplace_back(DLOG_ERROR, error->second);
    }
    if (call.function == "pthread_create") {
        lines.emplace_back(DLOG_DEBUG, "Timer thread create status: 0\n");
    }
    if (call.method == "RequestName") {
        lines.emplace_back(DLOG_ERROR, call.code ? "Cannot own name due to return code = " +
                                                       std::to_string(*call.code) + "\n\n"
                                                 : "Cannot get response for name request\n\n");
    } else if (call.method == "ReleaseName" && !call.code) {
        lines.emplace_back(DLOG_ERROR, "Release failed due to empty response.\n\n");
    } else {
        return lines;
    }
    const Lines more = LinesOfAnnouncer(announcer, call.subject);
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// The function that called BroadcastName for the call at `index`.
std::string Announcer(const std::vector<Event>& events, std::size_t index) {
    for (std::size_t i = index; i-- > 0;) {
        if (events[i].kind == Event::Kind::Log && events[i].function != "BroadcastName") {
            return events[i].function;
        }
    }
    return "";
}

Lines LogAfter(const std::vector<Event>& events, std::size_t index, std::size_t count) {
    Lines lines;
    for (std::size_t i = index + 1; i < events.size() && lines.size() < count; ++i) {
        if (events[i].kind == Event::Kind::Log) {
            lines.emplace_back(events[i].priority, events[i].message);
        }
    }
    return lines;
}

std::size_t CountErrors(const Lines& lines) {
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [](const auto& line) { return line.first == DLOG_ERROR; }));
}

void CheckLog(const std::vector<Event>& events) {
    std::size_t errors = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i].kind == Event::Kind::Call && events[i].failed) {
            const Lines expected = LinesAfter(events[i], Announcer(events, i));
            EXPECT_EQ(LogAfter(events, i, expected.size()), expected) << events[i].text;
            errors += CountErrors(expected);
        }
    }
    EXPECT_EQ(CountErrors(LogAfter(events, static_cast<std::size_t>(-1), events.size())), errors);
}

bool Failed(const std::vector<Event>& events, const std::string& function) {
    return std::any_of(events.begin(), events.end(), [&](const Event& event) {
        return event.failed && event.function == function;
    });
}

// The replies that the channel has got, and keeps.
std::size_t Replies(const std::vector<Event>& events) {
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [](const Event& event) {
            return !event.failed && event.function == "g_dbus_proxy_call_sync";
        }));
}

// Who did what, from the event `first` on.
std::vector<std::string> Outline(const std::vector<Event>& events, std::size_t first) {
    std::vector<std::string> outline;
    for (std::size_t i = first; i < events.size(); ++i) {
        outline.push_back(events[i].function + " " + events[i].method);
    }
    return outline;
}

// All that happened, to the last detail.
std::string Course(const std::vector<Event>& events) {
    std::string course;
    for (const Event& event : events) {
        course += event.text + (event.failed ? " failed\n" : "\n");
    }
    return course;
}

// What the operation left: nothing of its own, and a state that fits together.
void CheckState(const ChannelLife& life) {
    EXPECT_FALSE(life.world.Locked());
    for (const std::string& held : life.world.Held()) {
        for (const char* transient : {"error", "iterator", "builder"}) {
            EXPECT_NE(held.compare(0, std::string(transient).size(), transient), 0) << held;
        }
    }
    if (life.channel == nullptr) {
        return;
    }
    const Channel& channel = *life.channel;
    if (channel.m_handshake > Channel::CONNECTION_HANDSHAKE_SYN) {
        EXPECT_NE(channel.m_partner_dbus_name, "");
    }
    if (Failed(life.world.Events(), "pthread_create")) {
        return;  // nobody takes care of what is owed, until another announcement fails
    }
    if (channel.m_handshake > Channel::CONNECTION_HANDSHAKE_SYN) {
        EXPECT_EQ(channel.m_resendHandshake.size(), 0U);
    }
    for (const auto& [partner, suffix] : channel.m_resendHandshake) {
        EXPECT_EQ(partner, channel.m_partner_dbus_name);
        EXPECT_TRUE(suffix == "_SYN_ACK" || suffix == "_ACK") << suffix;
    }
}

// The channel finds the last partner and talks to it.
void FindPartner(ChannelLife& life) {
    HearSyn(life, kLastPartner);
    HearAck(life, kLastPartner);
    EXPECT_TRUE(life.channel->IsConnectionReady());
    EXPECT_EQ(life.channel->m_partner_dbus_name, kLastPartner);
    std::vector<char> data = ToBytes("hi");
    EXPECT_EQ(life.channel->SendMessage(data), data);
}

// Lets the bus go on without failures: what is owed is resent, and the partner leaves.
void Recover(ChannelLife& life) {
    Channel& channel = *life.channel;
    if (channel.m_timerThread != 0) {
        Channel::TimerThread(&channel);
        EXPECT_EQ(channel.m_resendHandshake.size(), 0U);
        EXPECT_EQ(channel.m_timerThread, 0U);
    }
    LosePartner(life);
}

// Why the channel cannot find a partner any more, so that it can only be destroyed; empty where it
// can.
std::string WhyNoPartner(const ChannelLife& life) {
    const Channel& channel = *life.channel;
    if (channel.m_connection == nullptr) {
        return "without a connection";
    }
    if (channel.m_notification_watch_syn == 0) {
        return "SYN subscription refused: hears of no new partner";
    }
    if (channel.m_notification_watch_ack == 0) {
        return "ACK subscription refused: no new partner becomes ready";
    }
    if (channel.m_signal_id != 0 && !life.world.Watches(channel.m_partner_dbus_name)) {
        return "name watch refused: bound for ever, its partner's loss is not told";
    }
    return "";
}

// What was refused is the reason, and a channel that is bound for ever takes nobody else.
void CheckReason(ChannelLife& life, const std::vector<Event>& events) {
    const Channel& channel = *life.channel;
    if (channel.m_connection == nullptr) {
        EXPECT_TRUE(Failed(events, "g_bus_get_sync"));
    } else if (channel.m_signal_id == 0) {
        EXPECT_TRUE(Failed(events, "g_dbus_connection_signal_subscribe"));
    } else {
        EXPECT_TRUE(Failed(events, "g_bus_watch_name_on_connection"));
        const std::string bound = channel.m_partner_dbus_name;
        HearSyn(life, kLastPartner);
        HearSynAck(life, kLastPartner);
        EXPECT_EQ(channel.m_partner_dbus_name, bound);
    }
}

// What stays by design, and nothing else: the registration, the three subscriptions to the
// handshake names, and the reply of each request that succeeded.
void CheckNothingElseIsHeld(const StubWorld& world, std::size_t requests) {
    const auto count = [&](const std::string& kind) {
        const auto held = world.Held();
        return static_cast<std::size_t>(std::count_if(
            held.begin(), held.end(),
            [&](const std::string& name) { return name.compare(0, kind.size(), kind) == 0; }));
    };
    EXPECT_LE(count("registration"), 1U);
    EXPECT_LE(count("subscription"), 3U);
    EXPECT_EQ(count("reply"), requests);
    EXPECT_EQ(world.Held().size(), count("registration") + count("subscription") + requests);
}

// ---- The cells ----

struct Run {
    std::vector<FailableCall> calls;
    std::vector<std::string> outline;  // what happened, without the names that differ between runs
    int failed = 0;                    // calls, by the plan, since the run before
    bool can_begin = true;             // the state was the one that the operation begins in
};

Run PerformOnce(const Scenario& scenario, ChannelLife& life, const char* partner, bool again) {
    Run run;
    if (again) {
        scenario.begin(life, partner);
        run.can_begin = WhyNoPartner(life).empty();
    }
    const auto first_call = static_cast<std::ptrdiff_t>(life.world.FailableCalls().size());
    const std::size_t first_event = life.world.Events().size();
    scenario.act(life, partner);
    CheckState(life);
    const std::vector<FailableCall>& calls = life.world.FailableCalls();
    run.calls.assign(calls.begin() + first_call, calls.end());
    run.outline = Outline(life.world.Events(), first_event);
    return run;
}

// The operation as often as it can be repeated, with the plan in force from the first run to the
// last. All of it is recorded.
std::vector<Run> Perform(const Scenario& scenario, ChannelLife& life, Plan* plan) {
    scenario.prepare(life);
    if (scenario.begin) {
        scenario.begin(life, kPartners[0]);
    }
    const auto failed = [plan] { return plan == nullptr ? 0 : plan->Failed(); };
    if (plan != nullptr) {
        life.world.plan = [plan](const FailableCall& call) { return plan->Decide(call); };
    }
    life.Record();
    std::vector<Run> runs;
    for (const char* partner : kPartners) {
        if (!runs.empty() && !scenario.begin) {
            break;
        }
        const int before = failed();
        runs.push_back(PerformOnce(scenario, life, partner, !runs.empty()));
        runs.back().failed = failed() - before;
    }
    life.Stop();
    life.world.plan = nullptr;
    return runs;
}

// The number of runs in which something fails, if the call comes in each.
std::size_t FailingRuns(Extent extent) {
    switch (extent) {
        case Extent::Once:
            return 1;
        case Extent::Twice:
            return 2;
        default:
            return std::size(kPartners);
    }
}

bool Makes(const Run& run, const FailableCall& victim) {
    return std::any_of(run.calls.begin(), run.calls.end(),
                       [&](const FailableCall& call) { return call.IsLike(victim); });
}

// Each run against the one in which nothing fails: it fails as far as the failure extends, and
// where it does not fail it is the same.
void CheckRuns(const std::vector<Run>& runs, const std::vector<Run>& undisturbed,
               const FailableCall& victim, Extent extent) {
    ASSERT_EQ(runs.size(), undisturbed.size());
    EXPECT_GE(runs[0].failed, 1);
    if (extent == Extent::Once) {
        EXPECT_EQ(runs[0].failed, 1);
    }
    const bool lasts = FailingRuns(extent) == std::size(kPartners);
    for (std::size_t i = 1; i < runs.size(); ++i) {
        if (i >= FailingRuns(extent)) {
            EXPECT_EQ(runs[i].failed, 0) << "run " << i;
        } else if (lasts && Makes(undisturbed[i], victim) && runs[i].can_begin) {
            EXPECT_GE(runs[i].failed, 1) << "run " << i;
        }
        if (runs[i].failed == 0 && runs[i].can_begin) {
            EXPECT_EQ(runs[i].outline, undisturbed[i].outline) << "run " << i;
        }
    }
}

struct Tally {
    int calls = 0;
    int cells = 0;
    int found = 0;                         // a partner afterwards
    std::map<std::string, int> destroyed;  // could only be destroyed, by reason
    std::set<std::string> failed;          // the functions
};

// What happens to the channel afterwards: empty where it finds a partner, or why it cannot.
std::string EndOf(ChannelLife& life, const std::vector<Event>& events) {
    if (life.channel == nullptr) {
        return "by the operation itself";
    }
    Recover(life);
    std::string reason = WhyNoPartner(life);
    if (reason.empty()) {
        FindPartner(life);
    } else {
        CheckReason(life, events);
    }
    life.channel.reset();
    return reason;
}

// The cells of one scenario: each is a way for one of its calls to fail.
class Cells {
public:
    explicit Cells(const Scenario& scenario) : m_scenario(scenario) {
        ChannelLife life;
        m_undisturbed = Perform(scenario, life, nullptr);
    }

    Tally Run() {
        for (const FailableCall& call : m_undisturbed[0].calls) {
            ++m_tally.calls;
            for (const Way& way : WaysToFail(call)) {
                for (const Extent extent : {Extent::Once, Extent::Twice, Extent::EveryOneOfItsKind,
                                            Extent::EverythingFromThere}) {
                    SCOPED_TRACE(std::string(m_scenario.name) + ": call " +
                                 std::to_string(call.number) + " (" + call.function + " " +
                                 call.method + ") fails " + way.name + ", " + ToString(extent));
                    RunCell(call, way.failure, extent);
                }
            }
        }
        return m_tally;
    }

private:
    void RunCell(const FailableCall& victim, const Failure& failure, Extent extent) {
        ChannelLife life;
        Plan plan(victim, failure, extent);
        const std::vector<::Run> runs = Perform(m_scenario, life, &plan);
        const std::vector<Event> events = life.world.Events();
        CheckRuns(runs, m_undisturbed, victim, extent);
        CheckLog(events);
        const std::string reason = EndOf(life, events);
        CheckNothingElseIsHeld(life.world, Replies(events) + (reason.empty() ? 1 : 0));
        Count(events, reason);
    }

    // A cell in which exactly the same happened as in another is not counted again: where the call
    // is made once, failing it twice is failing it once.
    void Count(const std::vector<Event>& events, const std::string& reason) {
        if (!m_seen.insert(Course(events)).second) {
            return;
        }
        ++m_tally.cells;
        ++(reason.empty() ? m_tally.found : m_tally.destroyed[reason]);
        for (const Event& event : events) {
            if (event.failed) {
                m_tally.failed.insert(event.kind == Event::Kind::Log ? "__dlog_print"
                                                                     : event.function);
            }
        }
    }

    const Scenario& m_scenario;
    std::vector<::Run> m_undisturbed;
    std::set<std::string> m_seen;
    Tally m_tally;
};

// ---- What is not failed ----

// All calls of the channel that are not failed above, and why.
const std::map<std::string, std::string> kNeverFailed = {
    {"g_bus_unown_name", "returns nothing"},
    {"g_bus_unwatch_name", "returns nothing"},
    {"g_clear_error", "returns nothing; the error is the one to be freed"},
    {"g_dbus_connection_get_unique_name",
     "null only for a connection that is not to a message bus, which g_bus_get_sync() never gives"},
    {"g_dbus_connection_signal_unsubscribe", "returns nothing"},
    {"g_dbus_method_invocation_return_value", "returns nothing"},
    {"g_dbus_node_info_new_for_xml",
     "takes an error and may give null, but its text is a constant that always parses (every test "
     "parses it, by GIO itself), so the channel asks for no error and does not look"},
    {"g_dbus_node_info_unref", "returns nothing"},
    {"g_error_free", "returns nothing"},
    {"g_object_unref", "returns nothing"},
    {"g_type_init", "returns nothing"},
    {"g_variant_builder_add", "returns nothing"},
    {"g_variant_builder_new", "never null: GLib ends the program when memory runs out"},
    {"g_variant_builder_unref", "returns nothing"},
    {"g_variant_get", "returns nothing; that it leaves its variables untouched is in recordings/"},
    {"g_variant_get_type_string", "never null: each value has a type"},
    {"g_variant_is_of_type", "false is an answer; in recordings/"},
    {"g_variant_iter_free", "returns nothing"},
    {"g_variant_iter_loop", "false is the end of the array, which comes each time"},
    {"g_variant_new", "never null: GLib ends the program when memory runs out"},
    {"g_variant_unref", "returns nothing"},
    {"pthread_join", "an error number only for a thread that was joined or that joins itself"},
    {"pthread_mutex_destroy", "an error number only for a mutex that is held"},
    {"pthread_mutex_init", "an error number only for attributes, and there are none"},
    {"pthread_mutex_lock", "an error number only for kinds of mutexes that this is not"},
    {"pthread_mutex_trylock", "busy is an answer; the channel does not ask"},
    {"pthread_mutex_unlock", "an error number only for kinds of mutexes that this is not"},
    {"putc", "failed as putchar, of which it is the other form"},
};

void CheckThatNoCallIsLeftOut(const std::set<std::string>& failed) {
    std::set<std::string> expected = {"__dlog_print"};
    std::istringstream wrapped(TEVROL_WRAPPED_CALLS);
    for (std::string name; wrapped >> name;) {
        if (kNeverFailed.count(name) == 0) {
            expected.insert(name);
        }
    }
    EXPECT_EQ(failed, expected) << "a call is neither failed nor among those that never are";
}

class FailEveryCall : public ::testing::Test {};

TEST_F(FailEveryCall, LeavesAChannelThatFindsAPartnerOrCanBeDestroyed) {
    alarm(120);  // a hang fails too
    Tally all;
    for (const Scenario& scenario : Scenarios()) {
        const Tally tally = Cells(scenario).Run();
        printf("%-40s %3d calls  %5d cells\n", scenario.name, tally.calls, tally.cells);
        all.calls += tally.calls;
        all.cells += tally.cells;
        all.found += tally.found;
        for (const auto& [reason, cells] : tally.destroyed) {
            all.destroyed[reason] += cells;
        }
        all.failed.insert(tally.failed.begin(), tally.failed.end());
    }
    printf("%d calls, %d cells: %d found a partner afterwards, %d were destroyed\n", all.calls,
           all.cells, all.found, all.cells - all.found);
    for (const auto& [reason, cells] : all.destroyed) {
        printf("  %4d destroyed: %s\n", cells, reason.c_str());
    }
    CheckThatNoCallIsLeftOut(all.failed);
    alarm(0);
}

}  // namespace
