// Each call that can fail, at each place where an operation makes it, failed in every way. What
// must hold in each case: the operation ends, the log tells what it has to, nothing is lost, and
// the channel can find a partner afterwards or, where what it needs for that was refused, be
// destroyed.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/dlog.h"
#include "tests/conformance/conformance-test.h"

namespace {

using Channel = TevrolDbusRemote;

// ---- What is done ----

struct Scenario {
    const char* name;
    std::function<void(ChannelLife&)> prepare;  // without a failure
    std::function<void(ChannelLife&)> act;
};

void Nothing(ChannelLife& /*life*/) {}

std::function<void(ChannelLife&)> HearSyn = [](ChannelLife& life) {
    life.Hear(&Channel::cb_SynNameOwnerChanged, ":1.5");
};

std::function<void(ChannelLife&)> HearSynAck = [](ChannelLife& life) {
    life.Hear(&Channel::cb_SynAckNameOwnerChanged, ":1.5");
};

void Destroy(ChannelLife& life) {
    life.channel.reset();
}

// A fresh channel whose announcement at the stage failed, so that it is owed.
std::function<void(ChannelLife&)> Owing(const std::function<void(ChannelLife&)>& stage) {
    return [stage](ChannelLife& life) {
        life.Construct();
        life.world.FailNext("RequestName");
        stage(life);
    };
}

void RunPass(ChannelLife& life) {
    Channel::OnResendHandshake(life.channel.get());
}

// An announcement that never succeeds is repeated until the partner leaves.
void RunThread(ChannelLife& life) {
    constexpr int kPasses = 4;
    life.world.on_sleep = [&life](int sleeps) {
        if (sleeps == kPasses && !life.channel->m_partner_dbus_name.empty()) {
            life.Lose(":1.5");
        }
    };
    Channel::TimerThread(life.channel.get());
}

GVariant* Payload() {
    return g_variant_new_parsed("([byte 0x61, 0x00, 0xff],)");
}

void Request(ChannelLife& life) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendMessage(data);
}

void Notify(ChannelLife& life) {
    std::vector<char> data = ToBytes("hi");
    life.channel->SendNotification(data, life.channel->m_partner_dbus_name);
}

// From construction to the loss of a partner that came second, as far as the bus would tell the
// channel of it.
void Live(ChannelLife& life) {
    life.Construct();
    const Channel& channel = *life.channel;
    if (channel.m_notification_watch_syn == 0) {
        return;
    }
    HearSyn(life);
    if (channel.m_timerThread != 0) {
        RunThread(life);
    }
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_SYN_ACK &&
        channel.m_notification_watch_ack != 0) {
        life.Hear(&Channel::cb_AckNameOwnerChanged, ":1.5");
    }
    if (channel.m_handshake == Channel::CONNECTION_HANDSHAKE_ACK && channel.m_signal_id != 0) {
        Notify(life);
        life.Receive(Payload());
    }
    if (life.world.Watches(channel.m_partner_dbus_name)) {
        life.Lose(channel.m_partner_dbus_name);
    }
}

std::vector<Scenario> Scenarios() {
    const auto construct = [](ChannelLife& life) { life.Construct(); };
    const auto bound = [](ChannelLife& life) { life.ConstructBound(); };
    const auto ready = [](ChannelLife& life) { life.ConstructReady(); };
    const auto defaults = [](ChannelLife& life) {
        life.ConstructReady(StubChannel::Handlers::Default);
    };
    return {
        {"construction", Nothing, construct},
        {"SYN stage", construct, HearSyn},
        {"SYN_ACK stage", construct, HearSynAck},
        {"ACK stage", bound,
         [](ChannelLife& life) { life.Hear(&Channel::cb_AckNameOwnerChanged, ":1.5"); }},
        {"loss", ready, [](ChannelLife& life) { life.Lose(":1.5"); }},
        {"resend pass of the SYN_ACK", Owing(HearSyn), RunPass},
        {"resend pass of the ACK", Owing(HearSynAck), RunPass},
        {"resend thread of the SYN_ACK", Owing(HearSyn), RunThread},
        {"resend thread of the ACK", Owing(HearSynAck), RunThread},
        {"request", ready, Request},
        {"request without a partner", construct, Request},
        {"incoming request", ready, [](ChannelLife& life) { life.Receive(Payload()); }},
        {"incoming request, default handler", defaults,
         [](ChannelLife& life) { life.Receive(Payload()); }},
        {"notification", ready, Notify},
        {"incoming notification", ready, [](ChannelLife& life) { life.ReceiveSignal(Payload()); }},
        {"incoming notification, default handler", defaults,
         [](ChannelLife& life) { life.ReceiveSignal(Payload()); }},
        {"teardown with nobody bound", construct, Destroy},
        {"teardown with a partner bound", bound, Destroy},
        {"teardown with a ready partner", ready, Destroy},
        {"teardown with a resend pending", Owing(HearSyn), Destroy},
        {"construction to loss", Nothing, Live},
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

// A plan that fails `victim` and as much of what follows as `extent` says.
std::function<std::optional<Failure>(const FailableCall&)> Plan(const FailableCall& victim,
                                                                const Failure& failure,
                                                                Extent extent) {
    return [=, failed = 0](const FailableCall& call) mutable -> std::optional<Failure> {
        const bool same_kind = call.function == victim.function && call.method == victim.method;
        if (call.number < victim.number || (!same_kind && extent != Extent::EverythingFromThere) ||
            (extent == Extent::Once && failed == 1) || (extent == Extent::Twice && failed == 2)) {
            return std::nullopt;
        }
        ++failed;
        Failure chosen = failure;
        if (!same_kind) {
            chosen.code.reset();
        }
        return chosen;
    };
}

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

// The channel finds the partner ":1.7" and talks to it.
void FindPartner(ChannelLife& life) {
    life.Hear(&Channel::cb_SynNameOwnerChanged, ":1.7");
    life.Hear(&Channel::cb_AckNameOwnerChanged, ":1.7");
    EXPECT_TRUE(life.channel->IsConnectionReady());
    EXPECT_EQ(life.channel->m_partner_dbus_name, ":1.7");
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
    const std::string partner = channel.m_partner_dbus_name;
    if (life.world.Watches(partner)) {
        life.Lose(partner);
        EXPECT_EQ(channel.m_partner_dbus_name, "");
    }
}

// Whether the bus can tell the channel of a new partner, and it would take it.
bool CanFindPartner(const Channel& channel) {
    return channel.m_connection != nullptr && channel.m_notification_watch_syn != 0 &&
           channel.m_notification_watch_ack != 0 && channel.m_proxy_watch == 0 &&
           channel.m_signal_id == 0;
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

struct Tally {
    int calls = 0;
    int cells = 0;
    int found = 0;      // a partner afterwards
    int destroyed = 0;  // could only be destroyed
};

void RunCell(const Scenario& scenario, const FailableCall& victim, const Failure& failure,
             Extent extent, Tally& tally) {
    ChannelLife life;
    scenario.prepare(life);
    life.world.plan = Plan(victim, failure, extent);
    life.Record();
    scenario.act(life);
    life.Stop();
    life.world.plan = nullptr;
    life.world.on_sleep = nullptr;
    const std::vector<Event> events = life.world.Events();
    CheckLog(events);
    CheckState(life);
    std::size_t requests =
        scenario.name == std::string("request") && !Failed(events, "g_dbus_proxy_call_sync") ? 1
                                                                                             : 0;
    ++tally.cells;
    if (life.channel == nullptr) {
        CheckNothingElseIsHeld(life.world, requests);
        ++tally.destroyed;
        return;
    }
    Recover(life);
    if (CanFindPartner(*life.channel)) {
        FindPartner(life);
        ++requests;
        ++tally.found;
    } else {
        EXPECT_TRUE(Failed(events, "g_bus_get_sync") ||
                    Failed(events, "g_dbus_connection_signal_subscribe") ||
                    Failed(events, "g_bus_watch_name_on_connection"));
        ++tally.destroyed;
    }
    life.channel.reset();
    CheckNothingElseIsHeld(life.world, requests);
}

// The calls that can fail which the operation makes when none does.
std::vector<FailableCall> CallsOf(const Scenario& scenario) {
    ChannelLife life;
    scenario.prepare(life);
    const auto before = static_cast<std::ptrdiff_t>(life.world.FailableCalls().size());
    life.Record();
    scenario.act(life);
    life.Stop();
    const std::vector<FailableCall> all = life.world.FailableCalls();
    return {all.begin() + before, all.end()};
}

Tally RunScenario(const Scenario& scenario) {
    Tally tally;
    for (const FailableCall& call : CallsOf(scenario)) {
        ++tally.calls;
        for (const Way& way : WaysToFail(call)) {
            for (const Extent extent : {Extent::Once, Extent::Twice, Extent::EveryOneOfItsKind,
                                        Extent::EverythingFromThere}) {
                SCOPED_TRACE(std::string(scenario.name) + ": call " + std::to_string(call.number) +
                             " (" + call.function + " " + call.method + ") fails " + way.name +
                             ", " + ToString(extent));
                RunCell(scenario, call, way.failure, extent, tally);
            }
        }
    }
    return tally;
}

class FailEveryCall : public ::testing::Test {};

TEST_F(FailEveryCall, LeavesAChannelThatFindsAPartnerOrCanBeDestroyed) {
    alarm(60);  // a hang fails too
    Tally all;
    for (const Scenario& scenario : Scenarios()) {
        const Tally tally = RunScenario(scenario);
        printf("%-40s %3d calls  %5d cells\n", scenario.name, tally.calls, tally.cells);
        all.calls += tally.calls;
        all.cells += tally.cells;
        all.found += tally.found;
        all.destroyed += tally.destroyed;
    }
    printf("%d calls, %d cells: %d found a partner afterwards, %d were destroyed\n", all.calls,
           all.cells, all.found, all.destroyed);
    alarm(0);
}

}  // namespace
