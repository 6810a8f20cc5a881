// SPDX-License-Identifier: MIT
// The partner and the bus, killed and stopped at every step: before each call that this end makes
// in both sequences of the handshake and in the resend of a refused announcement, at each moment of
// the partner's own steps, and during requests in both directions.
//
// The partner is a process. A step of this end is the moment before one of its calls; a step of the
// partner is where its option --stop holds it. So nothing depends on timing.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

#include "devkit/partner-process.h"
#include "tests/support/channel-test.h"
#include "tests/support/gio-calls.h"
#include "tests/support/handshake.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Pair;
using tevrol::PartnerProcess;

struct Sequence {
    char letter;            // as docs/protocol.md names it
    bool partner_is_first;  // the partner is there when this end is constructed
    const char* refused;    // the stage of this end's that its first attempt fails to announce
    std::size_t calls;      // that this end makes

    std::string Name() const {
        return std::string(1, letter) + (refused == nullptr ? "" : "_resend");
    }
};

std::ostream& operator<<(std::ostream& out, const Sequence& sequence) {
    return out << sequence.Name();
}

// A: this end opens and completes by its ACK. B: the partner opens, this end answers by SYN_ACK.
constexpr Sequence kA{'A', true, nullptr, 12};
constexpr Sequence kB{'B', false, nullptr, 12};
// The same with the answer refused once: RequestName fails, a thread is made, and its pass makes
// RequestName and ReleaseName.
constexpr Sequence kResendA{'A', true, "ACK", 14};
constexpr Sequence kResendB{'B', false, "SYN_ACK", 14};
// Calls of the constructor, which no partner takes part in, and of all up to a refused attempt.
constexpr std::size_t kConstructorCalls = 7;
constexpr std::size_t kCallsUpToRefusal = 11;

struct Step {
    enum class Where { BeforeCall, WhenReady, AtMoment, RequestToPartner, RequestFromPartner };

    Sequence sequence;
    Where where;
    std::size_t call = 0;  // BeforeCall: which of this end's, from 1
    std::string moment{};  // AtMoment, RequestToPartner: of the partner's, as its option has it

    std::string Name() const;
    // The partner has announced what this end has yet to hear and answer.
    bool IsUnheard() const {
        return moment == "after-syn" || moment == "after-syn-ack";
    }
    // This end is about to announce, which takes it calls that wait for the bus.
    bool IsBeforeAnnouncement() const {
        return where == Where::BeforeCall || IsUnheard();
    }
};

std::string Step::Name() const {
    const std::string in = sequence.Name();
    switch (where) {
        case Where::BeforeCall:
            return in + "_call_" + std::to_string(call);
        case Where::WhenReady:
            return in + "_ready";
        case Where::AtMoment: {
            std::string at = moment;
            std::replace(at.begin(), at.end(), '-', '_');
            return in + "_partner_" + at;
        }
        case Where::RequestToPartner:
            return "request_to_partner";
        case Where::RequestFromPartner:
            return "request_from_partner";
    }
    return {};
}

std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.Name();
}

std::vector<Step> AllSteps() {
    using Where = Step::Where;
    std::vector<Step> steps;
    const auto calls = [&](const Sequence& sequence, std::size_t first) {
        for (std::size_t call = first; call <= sequence.calls; ++call) {
            steps.push_back({sequence, Where::BeforeCall, call});
        }
        steps.push_back({sequence, Where::WhenReady});
    };
    calls(kA, 1);
    calls(kB, kConstructorCalls + 1);
    calls(kResendA, kCallsUpToRefusal + 1);
    calls(kResendB, kCallsUpToRefusal + 1);
    for (const char* moment : {"before-syn-ack", "during-syn-ack", "after-syn-ack", "ready"}) {
        steps.push_back({kA, Where::AtMoment, 0, moment});
    }
    for (const char* moment : {"before-syn", "during-syn", "after-syn", "before-ack", "during-ack",
                               "after-ack", "ready"}) {
        steps.push_back({kB, Where::AtMoment, 0, moment});
    }
    steps.push_back({kB, Where::RequestToPartner, 0, "request"});
    steps.push_back({kB, Where::RequestFromPartner});
    return steps;
}

// Lets a stopped bus go on once this process has sent it a call that waits for its answer, and
// notes who is held up then. What is sent before lies with the bus by that time, unread.
class Resumption {
public:
    // `before` is called once, with the bus still stopped.
    Resumption(GDBusConnection* connection, tevrol::PrivateBus& bus, std::function<void()> before)
        : m_bus(bus),
          m_connection(connection),
          m_before(std::move(before)),
          m_filter(g_dbus_connection_add_filter(connection, OnMessage, this, nullptr)),
          m_thread([this] { ContinueOnCall(); }) {}
    ~Resumption() {
        g_dbus_connection_remove_filter(m_connection, m_filter);
        if (!m_called.exchange(true)) {
            m_call.set_value(false);
        }
        m_thread.join();
    }
    Resumption(const Resumption&) = delete;
    Resumption& operator=(const Resumption&) = delete;

    // The calls that were waiting when it was due; none before.
    std::vector<std::string> HeldUp() const {
        return m_is_due ? m_held_up : std::vector<std::string>();
    }

private:
    // On GIO's own thread, when a message arrives or leaves.
    static GDBusMessage* OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                                   gpointer data) {
        static const std::vector<std::string> kWaitedFor = {"RequestName", "ReleaseName", "GetId"};
        auto* self = static_cast<Resumption*>(data);
        const gchar* member = g_dbus_message_get_member(message);
        if (incoming == FALSE && member != nullptr && self->m_bus.IsStopped() &&
            std::count(kWaitedFor.begin(), kWaitedFor.end(), member) > 0 &&
            !self->m_called.exchange(true)) {
            self->m_call.set_value(true);
        }
        return message;
    }

    void ContinueOnCall() {
        if (!m_call.get_future().get()) {
            return;
        }
        EXPECT_TRUE(g_dbus_connection_flush_sync(m_connection, nullptr, nullptr));
        EXPECT_TRUE(m_bus.IsStopped());
        m_held_up = gio_calls::UnderWay();
        m_before();
        m_is_due = true;
        m_bus.Signal(SIGCONT);
    }

    tevrol::PrivateBus& m_bus;
    GDBusConnection* m_connection;
    const std::function<void()> m_before;
    std::atomic<bool> m_called{false};
    std::promise<bool> m_call;  // false: there will be none
    std::vector<std::string> m_held_up;
    std::atomic<bool> m_is_due{false};
    const guint m_filter;
    std::thread m_thread;
};

class KillAndStop : public ChannelTest {
protected:
    static std::unique_ptr<PartnerProcess> StartPartner(std::vector<std::string> options = {}) {
        options.emplace_back("--wait");
        auto started = std::make_unique<PartnerProcess>(TEVROL_PARTNER_PROGRAM, "demo", options);
        EXPECT_TRUE(IterateUntil([&] { return started->Find("joined ").has_value(); }));
        return started;
    }

    static void Open(PartnerProcess& partner) {
        partner.Command("join");  // it has joined: opens the handshake
    }

    // Has both ends construct and announce as the sequence says, up to where the loop takes over.
    void Begin(const Sequence& sequence, const std::vector<std::string>& partner_options = {}) {
        if (sequence.refused != nullptr) {
            gio_calls::Fail(std::string("g_dbus_connection_call_sync RequestName "
                                        "org.ulmar.Tevrol.demo_CLIENT_") +
                            sequence.refused);
        }
        if (sequence.partner_is_first) {
            partner = StartPartner(partner_options);
        }
        channel = std::make_unique<TestChannel>();
        if (!sequence.partner_is_first) {
            partner = StartPartner(partner_options);
            Open(*partner);
        }
    }

    bool BothAreReady() const {
        return channel->IsConnectionReady() && partner->Find("ready ").has_value();
    }

    // Plays the sequence up to the step and strikes there.
    void StrikeAt(const Step& step, const std::function<void()>& blow) {
        using Where = Step::Where;
        std::atomic<bool> struck{false};
        const auto strike = [&] {
            if (!struck) {
                blow();
                struck = true;
            }
        };
        if (step.where == Where::BeforeCall) {
            gio_calls::BeforeCall(step.call, strike);
        }
        std::vector<std::string> partner_options;
        if (!step.moment.empty()) {
            partner_options = {"--stop=" + step.moment};
        }
        Begin(step.sequence, partner_options);
        if (step.where != Where::BeforeCall && step.where != Where::AtMoment) {
            ASSERT_TRUE(IterateUntil([&] { return BothAreReady(); }));
        }
        if (step.where == Where::RequestToPartner) {
            m_reply = std::async(std::launch::async, [this] {
                Bytes request = ToBytes("hello");
                return channel->SendMessage(request);
            });
        }
        if (step.where == Where::RequestFromPartner) {
            m_partner_asks = true;
            channel->answer = [&](const Bytes& request) {
                strike();
                return request;
            };
            partner->Command("request hello");
        } else if (step.IsUnheard()) {
            while (!partner->IsStopped()) {
                std::this_thread::yield();
            }
            Receive();
            strike();
        } else if (step.where != Where::BeforeCall) {
            ASSERT_TRUE(IterateUntil([&] { return step.moment.empty() || partner->IsStopped(); }));
            strike();
        }
        ASSERT_TRUE(IterateUntil([&] { return struck.load(); }));
        channel->answer = {};
    }

    // The step's own request, if there was one, in either direction: not answered yet, by `answer`,
    // or never. The loop does not run meanwhile for a request of this end: the partner's loss must
    // not be dispatched during the call.
    void ExpectUnanswered() {
        if (m_reply.valid()) {
            EXPECT_EQ(m_reply.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        }
        EXPECT_EQ(partner->Find("reply: "), std::nullopt);
    }
    void ExpectAnswer(const std::string& answer) {
        if (m_reply.valid()) {
            EXPECT_EQ(m_reply.get(), ToBytes(answer));
        }
        if (m_partner_asks) {
            EXPECT_TRUE(IterateUntil([&] { return partner->Find("reply: ").has_value(); }));
            EXPECT_EQ(partner->Find("reply: "), tevrol::Describe(ToBytes(answer)));
        }
    }
    void ExpectNoAnswer() {
        if (m_reply.valid()) {
            EXPECT_THAT(m_reply.get(), IsEmpty());
        }
        EXPECT_EQ(partner->Find("reply: "), std::nullopt);
    }

    // Both ends are ready and talk, whatever has happened before.
    void ExpectConnected(PartnerProcess& other) {
        const auto own_name = other.Find("joined ");
        ASSERT_TRUE(IterateUntil([&] {
            return channel->IsConnectionReady() && other.Find("ready ").has_value();
        })) << testing::PrintToString(other.Lines());
        EXPECT_EQ(other.Find("ready "), OwnName());
        EXPECT_EQ(channel->ReadyCalls().back(), std::make_pair(true, *own_name));
        Bytes request = AllByteValues();
        EXPECT_EQ(channel->SendMessage(request), AllByteValues());
        other.Command("request again");
        EXPECT_TRUE(
            IterateUntil([&] { return other.Find("reply: 5 bytes \"again\"").has_value(); }));
    }

    bool IsUnbound() const {
        return channel->m_proxy_watch == 0 && channel->m_signal_id == 0 &&
               channel->m_proxy == nullptr;
    }

    // The partner is gone, this end knows, and finds the next one.
    void ExpectLossAndANewPartner() {
        const std::string lost = *partner->Find("joined ");
        partner->Kill();
        // Once the bus no longer knows the partner, all that it did has been passed on.
        ASSERT_TRUE(IterateUntil([&] { return !NameHasOwner(lost); }));
        Settle();
        ASSERT_TRUE(IterateUntil([&] {
            return IsUnbound() && !channel->IsConnectionReady() && ResendThread(*channel) == 0;
        }));
        // Whoever was reported ready has been reported lost.
        const auto calls = channel->ReadyCalls();
        if (!calls.empty()) {
            EXPECT_EQ(calls.back(), std::make_pair(false, lost));
        }
        const auto next = StartPartner();
        Open(*next);
        ExpectConnected(*next);
    }

    // What the limits page says about an application that lives on without its bus.
    void ExpectLifeWithoutABus() {
        ASSERT_TRUE(IterateUntil([&] { return g_dbus_connection_is_closed(connection) != FALSE; }));
        Settle();
        const bool ready = channel->IsConnectionReady();
        // No loss of a partner that was ready. One that was just being bound may be reported lost:
        // the watch has then asked the bus about it and gets no answer.
        const std::string partner_name = *partner->Find("joined ");
        const TestChannel::Readiness was_ready = {{true, partner_name}};
        const TestChannel::Readiness was_lost = {{false, partner_name}};
        if (ready) {
            EXPECT_EQ(channel->ReadyCalls(), was_ready);
        } else {
            EXPECT_THAT(channel->ReadyCalls(), AnyOf(IsEmpty(), was_lost));
        }
        ClearLog();
        const CapturedOutput output;
        Bytes data = ToBytes("nobody hears");
        EXPECT_THAT(channel->SendMessage(data), IsEmpty());
        channel->SendNotification(data);
        const auto errors = ErrorsOfSending();
        if (ready) {
            const std::string closed = " [18] The connection is closed\n\n";
            EXPECT_THAT(
                errors,
                ElementsAre(Error("SendMessage", "Error while sending message" + closed),
                            Error("SendNotification", "Error while sending signal" + closed)));
            EXPECT_EQ(output.Text(), "");
        } else {
            EXPECT_THAT(errors, ElementsAre(Error("SendNotification", "Connection not set.\n\n")));
            EXPECT_EQ(output.Text(), "Connection not set.\n");
        }
        EndResends(*channel);
        channel.reset();  // in this state, too
    }

    // A resend that goes on without a bus logs errors of its own.
    static std::vector<LogLine> ErrorsOfSending() {
        auto errors = Errors();
        errors.erase(
            std::remove_if(errors.begin(), errors.end(),
                           [](const LogLine& line) { return line.function == "BroadcastName"; }),
            errors.end());
        return errors;
    }

    std::unique_ptr<TestChannel> channel;
    std::unique_ptr<PartnerProcess> partner;

private:
    std::future<Bytes> m_reply;
    bool m_partner_asks = false;
};

class KillAndStopAt : public KillAndStop, public testing::WithParamInterface<Step> {};

TEST_P(KillAndStopAt, KilledPartnerIsLostAndNextIsFound) {
    StrikeAt(GetParam(), [this] { partner->Kill(); });
    ExpectNoAnswer();
    ExpectLossAndANewPartner();
}

TEST_P(KillAndStopAt, StoppedPartnerDelaysOnlyItsRequests) {
    StrikeAt(GetParam(), [this] { partner->Stop(); });
    Settle();
    EXPECT_TRUE(partner->IsStopped());
    ExpectUnanswered();
    partner->Signal(SIGCONT);
    ExpectAnswer("hello");
    ExpectConnected(*partner);
    ExpectLossAndANewPartner();
}

TEST_P(KillAndStopAt, StoppedBusDelaysItsCallers) {
    const auto& announcement = MatchesRegex(
        "g_dbus_connection_call_sync (Request|Release)Name "
        "org.ulmar.Tevrol.demo_CLIENT_.*");
    const std::string settling = "g_dbus_connection_call_sync GetId";
    Resumption resumption(connection, bus, [this] { ExpectUnanswered(); });
    StrikeAt(GetParam(), [this] {
        bus.Stop();
        partner->Signal(SIGCONT);
    });
    if (GetParam().IsBeforeAnnouncement()) {
        ASSERT_TRUE(IterateUntil([&] { return !resumption.HeldUp().empty(); }));
        EXPECT_THAT(resumption.HeldUp(), ElementsAre(announcement));
    } else if (GetParam().where == Step::Where::RequestToPartner) {
        partner->Command("notify behind the reply");
        ASSERT_TRUE(IterateUntil([&] { return partner->Find("notified").has_value(); }));
        Settle();
        EXPECT_THAT(resumption.HeldUp(), ElementsAre("g_dbus_proxy_call_sync Send", settling));
    } else {
        Settle();
        EXPECT_THAT(resumption.HeldUp(), ElementsAre(settling));
    }
    ExpectAnswer("hello");
    ExpectConnected(*partner);
    ExpectLossAndANewPartner();
}

TEST_P(KillAndStopAt, KilledBusLeavesSurvivorWithFailingSends) {
    StrikeAt(GetParam(), [this] {
        bus.Kill();
        partner->Signal(SIGCONT);
    });
    if (GetParam().where == Step::Where::RequestFromPartner) {
        EXPECT_NE(partner->Wait(), 0) << "it ends with the bus, and fails";
    }
    ExpectNoAnswer();
    ExpectLifeWithoutABus();
}

TEST_P(KillAndStopAt, KilledBusEndsApplicationWithExitOnClose) {
    PrepareDeath();
    const auto lose_the_bus = [this] {
        g_dbus_connection_set_exit_on_close(connection, TRUE);
        StrikeAt(GetParam(), [this] {
            std::cerr << "struck" << std::endl;
            bus.Kill();
        });
        IterateUntil([] { return false; });
    };
    EXPECT_EXIT(lose_the_bus(), testing::KilledBySignal(SIGTERM), "struck");
}

INSTANTIATE_TEST_SUITE_P(Step, KillAndStopAt, testing::ValuesIn(AllSteps()),
                         [](const auto& cell) { return cell.param.Name(); });

class HandshakeSteps : public KillAndStop, public testing::WithParamInterface<Sequence> {};

// So that a call that the channel makes in addition becomes a step, too.
TEST_P(HandshakeSteps, AreAllCallsOfHandshake) {
    Begin(GetParam());
    ASSERT_TRUE(IterateUntil([&] { return BothAreReady() && ResendThread(*channel) == 0; }));
    EXPECT_EQ(gio_calls::All().size() - 1, GetParam().calls);  // but for the fixture's connection
}

INSTANTIATE_TEST_SUITE_P(Sequence, HandshakeSteps, testing::Values(kA, kB, kResendA, kResendB),
                         [](const auto& sequence) { return sequence.param.Name(); });

TEST_F(KillAndStop, PrintsHowManyCells) {
    const auto& tests = *testing::UnitTest::GetInstance();
    int cells = 0;
    for (int i = 0; i < tests.total_test_suite_count(); ++i) {
        const auto& suite = *tests.GetTestSuite(i);
        if (suite.name() == std::string("Step/KillAndStopAt")) {
            cells = suite.total_test_count();
        }
    }
    std::cout << AllSteps().size() << " steps, " << cells << " cells\n";
    EXPECT_EQ(cells, static_cast<int>(5 * AllSteps().size()));
}

TEST_F(KillAndStop, EndOfBusEndsProcessOnlyWhenLoopRuns) {
    PrepareDeath();
    const auto lose_the_bus = [this] {
        Begin(kB);
        ASSERT_TRUE(IterateUntil([&] { return BothAreReady(); }));
        g_dbus_connection_set_exit_on_close(connection, TRUE);
        bus.Kill();
        while (g_dbus_connection_is_closed(connection) == FALSE) {
            std::this_thread::yield();
        }
        Bytes request = ToBytes("hello");
        EXPECT_THAT(channel->SendMessage(request), IsEmpty());
        std::cerr << "alive without a bus" << std::endl;
        IterateUntil([] { return false; });
    };
    EXPECT_EXIT(lose_the_bus(), testing::KilledBySignal(SIGTERM), "alive without a bus");
}

// Without a bus a pass leaves everything as it was, so one is like the next.
TEST_F(KillAndStop, AnnouncementIsRepeatedWithoutBus) {
    HeldThread resend("Executed OnResendHandshake function\n");
    Begin(kResendB);
    ASSERT_TRUE(IterateUntil([&] { return ResendThread(*channel) != 0; }));
    Settle();  // the watch has asked about the partner and has its answer
    bus.Kill();
    ASSERT_TRUE(IterateUntil([&] { return g_dbus_connection_is_closed(connection) != FALSE; }));
    ClearLog();
    resend.GoOn();
    const LogLine closed =
        Error("BroadcastName", "Error during request name call [18] The connection is closed\n\n");
    constexpr int kPasses = 4;
    ASSERT_TRUE(IterateUntil([&] {
        const auto errors = Errors();
        return std::count(errors.begin(), errors.end(), closed) >= kPasses;
    }));
    EXPECT_THAT(Owed(*channel), ElementsAre(Pair(*partner->Find("joined "), "_SYN_ACK")));
    EXPECT_NE(ResendThread(*channel), 0U);
    EXPECT_THAT(channel->ReadyCalls(), IsEmpty());
    EndResends(*channel);
}

TEST_F(KillAndStop, RequestWithoutFreeDescriptorEndsProcess) {
    PrepareDeath();
    const auto run_out_of_descriptors = [this] {
        Begin(kB);
        ASSERT_TRUE(IterateUntil([&] { return BothAreReady(); }));
        rlimit descriptors{};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        const rlimit none = {0, descriptors.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        Bytes data = ToBytes("hello");
        channel->SendNotification(data);
        setrlimit(RLIMIT_NOFILE, &descriptors);
        EXPECT_THAT(Errors(), IsEmpty());
        const std::string notified = "notification from " + OwnName() + ": 5 bytes";
        ASSERT_TRUE(IterateUntil([&] { return partner->Find(notified).has_value(); }));
        std::cerr << "notified" << std::endl;
        setrlimit(RLIMIT_NOFILE, &none);
        channel->SendMessage(data);
    };
    // GLib's g_error(): it cannot make the context in which a synchronous call waits.
    EXPECT_EXIT(run_out_of_descriptors(), testing::KilledBySignal(SIGTRAP), "notified");
}

TEST_F(KillAndStop, RequestToStoppedPartnerWaitsForTimeout) {
    Begin(kB);
    ASSERT_TRUE(IterateUntil([&] { return BothAreReady(); }));
    partner->Stop();
    EXPECT_EQ(g_dbus_proxy_get_default_timeout(channel->m_proxy), -1);  // 25 s
    g_dbus_proxy_set_default_timeout(channel->m_proxy, 100);
    Bytes request = ToBytes("hello");
    EXPECT_THAT(channel->SendMessage(request), IsEmpty());
    EXPECT_THAT(Errors(), ElementsAre(Error("SendMessage",
                                            "Error while sending message [24] Timeout was "
                                            "reached\n\n")));
    Settle();
    EXPECT_TRUE(channel->IsConnectionReady());
    g_dbus_proxy_set_default_timeout(channel->m_proxy, -1);
    partner->Signal(SIGCONT);
    ExpectConnected(*partner);
}

}  // namespace
