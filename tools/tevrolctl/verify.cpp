// tevrolctl verify: is the other end a correct partner?
#include <memory>
#include <optional>

#include "tools/loop.h"
#include "tools/tevrolctl/command-line.h"
#include "tools/tevrolctl/commands.h"
#include "tools/tevrolctl/names.h"
#include "tools/tevrolctl/raw-end.h"

namespace tevrolctl {
namespace {

constexpr const char* kDetails =
    "Plays the client end against the running service end of NAME, by hand, right and wrong, and\n"
    "prints TAP. The partner must not be bound to an application meanwhile. With --run the "
    "partner\n"
    "is started here, so that its own opening and its death are tested as well.\n\n"
    "What the service end does with a notification cannot be seen from outside: tested is that it\n"
    "answers the next request.\n\n"
    "Examples:\n"
    "  tevrolctl verify demo\n"
    "  tevrolctl verify --echo --run 'tevrolctl partner demo' demo | prove -e cat -\n"
    "  tevrolctl verify --reply-limit 10 demo";

struct Settings {
    std::string channel;
    std::string command;  // starts the partner
    bool echo = false;
    std::chrono::milliseconds wait{0};
    std::chrono::milliseconds reply_limit{0};
};

// A test that does not hold.
class Mismatch : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

void Require(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw Mismatch(otherwise);
    }
}

tevrol::Bytes Large() {
    return tevrol::Bytes(std::size_t{1} << 20, 'x');
}

// The partner as a process that this one starts.
class StartedPartner {
public:
    explicit StartedPartner(const std::string& command)
        : m_process(tevrol::StartDyingWithParent({"/bin/sh", "-c", "exec " + command},
                                                 G_SUBPROCESS_FLAGS_STDOUT_SILENCE)) {}
    ~StartedPartner() {
        g_subprocess_force_exit(m_process.get());
        g_subprocess_wait(m_process.get(), nullptr, nullptr);
    }
    StartedPartner(const StartedPartner&) = delete;
    StartedPartner& operator=(const StartedPartner&) = delete;

private:
    tevrol::Subprocess m_process;
};

class Verification {
public:
    explicit Verification(Settings settings)
        : m_settings(std::move(settings)), m_witness(m_settings.channel) {}

    int Run() {
        const auto tests = Tests();
        PrintLine("TAP version 13");
        PrintLine("1.." + std::to_string(tests.size()));
        if (!m_settings.command.empty()) {
            m_partner = std::make_unique<StartedPartner>(m_settings.command);
            m_witness.Await(kSyn, 0, m_settings.wait);
        }
        bool all = true;
        int number = 0;
        for (const auto& [name, test] : tests) {
            ++number;
            all = RunOne(number, name, test) && all;
            if (number == 1 && !all) {
                PrintLine("Bail out! no partner to test");
                return kExitNoPartner;
            }
        }
        return all ? kExitOk : kExitFailed;
    }

private:
    using Test = void (Verification::*)();

    static std::vector<std::pair<const char*, Test>> Tests() {
        using V = Verification;
        return {
            {"answers SYN with SYN_ACK", &V::AnswersSyn},
            {"sequence A ends with ACK and requests are answered", &V::SequenceA},
            {"sequence B: answers SYN_ACK with ACK", &V::SequenceB},
            {"hears an announcement when the name is released, not before", &V::HearsTheRelease},
            {"drops a repeated SYN while bound", &V::DropsRepeatedSyn},
            {"drops a stale SYN_ACK while bound", &V::DropsStaleSynAck},
            {"takes a repeated ACK in silence", &V::TakesRepeatedAck},
            {"ignores an ACK when not bound", &V::IgnoresAckUnbound},
            {"notices the loss of a client and takes the next", &V::LossAndReturn},
            {"survives a client that dies while it owns its SYN name", &V::DeathInAnnouncement},
            {"answers an empty request", &V::EmptyRequest},
            {"answers a request of all byte values", &V::BinaryRequest},
            {"answers a request of 1 MiB", &V::LargeRequest},
            {"refuses a request of another type", &V::WrongRequest},
            {"refuses an unknown method", &V::UnknownMethod},
            {"takes notifications: empty, all byte values, 1 MiB", &V::Notifications},
            {"survives a notification of another type", &V::WrongNotification},
            {"drops a stranger's SYN and SYN_ACK while bound", &V::StrangerAnnounces},
            {"answers a stranger's request", &V::StrangerRequests},
            {"survives a stranger's notification and loss", &V::StrangerNotifies},
            {"opens with SYN when it is started", &V::OpensWithSyn},
            {"dies and returns in sequence B", &V::DiesAndReturns},
        };
    }

    bool RunOne(int number, const std::string& name, Test test) {
        const std::string line = std::to_string(number) + " - " + name;
        if ((test == &Verification::OpensWithSyn || test == &Verification::DiesAndReturns) &&
            m_settings.command.empty()) {
            PrintLine("ok " + line + " # SKIP needs --run");
            return true;
        }
        std::string mismatch;
        try {
            (this->*test)();
        } catch (const Mismatch& found) {
            mismatch = found.what();
        }
        LeaveAndSettle();
        PrintLine((mismatch.empty() ? Coloured(kGreen, "ok") : Coloured(kRed, "not ok")) + " " +
                  line);
        if (!mismatch.empty()) {
            PrintLine("  # " + mismatch);
        }
        return mismatch.empty();
    }

    // ---- Steps ----

    // A new client, as a process that starts.
    void Join() {
        LeaveAndSettle();
        m_client = std::make_unique<RawEnd>(m_settings.channel);
    }

    // The client is gone, and the bus has said so to everybody.
    void LeaveAndSettle() {
        if (m_client) {
            const std::string gone = m_client->UniqueName();
            m_client.reset();
            m_witness.AwaitLoss(gone, m_settings.wait);
        }
    }

    void Announce(const char* stage) {
        Announce(*m_client, stage);
    }
    static void Announce(RawEnd& end, const char* stage) {
        Require(end.Announce(stage),
                std::string("this end cannot own its ") + stage + " name: see tevrolctl check");
    }

    void AwaitAnswer(const char* stage, std::size_t since = 0) {
        const auto announcer = m_client->Await(stage, since, m_settings.wait);
        Require(announcer.has_value(),
                std::string("no ") + stage + " within " + Duration(m_settings.wait.count() * 1000));
        m_service = *announcer;
    }

    void Connect() {
        Join();
        Announce(kSyn);
        AwaitAnswer(kSynAck);
        Announce(kAck);
    }

    void RequireReply(RawEnd& end, const tevrol::Bytes& payload) {
        // Time to convert the payload byte by byte, as some ends do.
        const auto limit = m_settings.reply_limit + std::chrono::milliseconds(payload.size() >> 9);
        const Answer answer = end.Call(m_service, kMethod, PayloadBody(payload), limit);
        Require(answer.value != nullptr, "no reply: " + answer.error);
        GVariant* reply = answer.value.get();
        Require(g_variant_is_of_type(reply, G_VARIANT_TYPE("(ay)")) != FALSE,
                std::string("the reply is of type ") + g_variant_get_type_string(reply));
        if (m_settings.echo) {
            const Variant expected(g_variant_ref_sink(PayloadBody(payload)));
            Require(g_variant_equal(reply, expected.get()) != FALSE,
                    "the reply differs from the request");
        }
    }
    void RequireReply() {
        RequireReply(*m_client, {'?'});
    }

    // The reply comes behind all that the partner has announced before: it has announced nothing
    // more than it had at `since`.
    void RequireSilence(std::size_t since) {
        RequireReply();
        m_client->Settle();
        Require(m_client->All().size() == since,
                "it has announced " +
                    (m_client->All().size() > since ? m_client->All()[since].stage : ""));
    }

    // ---- Tests ----

    void AnswersSyn() {
        Join();
        Announce(kSyn);
        AwaitAnswer(kSynAck);
    }

    void SequenceA() {
        Connect();
        RequireReply();
    }

    void SequenceB() {
        Join();
        Announce(kSynAck);
        AwaitAnswer(kAck);
        RequireReply();
    }

    void HearsTheRelease() {
        Connect();
        Join();
        Require(m_client->Acquire(kSyn) == kPrimaryOwner, "this end cannot own its SYN name");
        RequireSilence(0);
        m_client->Release(kSyn);
        AwaitAnswer(kSynAck);
    }

    void DropsRepeatedSyn() {
        DropsWhileBound(kSyn);
    }
    void DropsStaleSynAck() {
        DropsWhileBound(kSynAck);
    }
    void TakesRepeatedAck() {
        DropsWhileBound(kAck);
    }

    void DropsWhileBound(const char* stage) {
        Connect();
        RequireReply();
        const std::size_t since = m_client->All().size();
        Announce(stage);
        RequireSilence(since);
    }

    void IgnoresAckUnbound() {
        Join();
        Announce(kAck);
        RequireSilence(0);
        Announce(kSyn);
        AwaitAnswer(kSynAck);
    }

    void LossAndReturn() {
        Connect();
        RequireReply();
        Connect();
        RequireReply();
    }

    void DeathInAnnouncement() {
        Join();
        Require(m_client->Acquire(kSyn) == kPrimaryOwner, "this end cannot own its SYN name");
        LeaveAndSettle();
        Join();
        // The partner has bound a process that is gone, and may need a moment to find out.
        const auto again = std::chrono::milliseconds(200);
        const auto answered = [&] {
            Announce(kSyn);
            return m_client->Await(kSynAck, 0, again).has_value();
        };
        bool took = answered();
        for (auto waited = again; !took && waited < m_settings.wait; waited += again) {
            took = answered();
        }
        Require(took, "no SYN_ACK to the next client");
    }

    void EmptyRequest() {
        Connect();
        RequireReply(*m_client, {});
    }
    void BinaryRequest() {
        Connect();
        RequireReply(*m_client, tevrol::AllByteValues());
    }
    void LargeRequest() {
        Connect();
        RequireReply(*m_client, Large());
    }

    void RequireRefusal(const char* method, GVariant* body) {
        Connect();
        const Answer answer = m_client->Call(m_service, method, body, m_settings.reply_limit);
        Require(!answer.value, "it was answered");
        Require(
            !answer.error_name.empty() && answer.error_name != "org.freedesktop.DBus.Error.NoReply",
            "no error came back: " + answer.error);
        RequireReply();
    }
    void WrongRequest() {
        RequireRefusal(kMethod, g_variant_new("(s)", "text"));
    }
    void UnknownMethod() {
        RequireRefusal("Unknown", PayloadBody({'?'}));
    }

    void Notifications() {
        Connect();
        for (const tevrol::Bytes& payload : {tevrol::Bytes(), tevrol::AllByteValues(), Large()}) {
            m_client->Notify(m_service, PayloadBody(payload));
        }
        RequireReply(*m_client, Large());
    }

    void WrongNotification() {
        Connect();
        m_client->Notify(m_service, g_variant_new("(s)", "text"));
        RequireReply();
    }

    void StrangerAnnounces() {
        Connect();
        RequireReply();
        RawEnd stranger(m_settings.channel);
        const std::size_t since = m_client->All().size();
        Announce(stranger, kSyn);
        Announce(stranger, kSynAck);
        RequireSilence(since);
    }

    void StrangerRequests() {
        Connect();
        RawEnd stranger(m_settings.channel);
        RequireReply(stranger, {'!'});
        RequireReply();
    }

    void StrangerNotifies() {
        Connect();
        {
            RawEnd stranger(m_settings.channel);
            stranger.Notify(m_service, PayloadBody({'!'}));
            stranger.Settle();
        }
        // Still bound: another SYN is dropped.
        const std::size_t since = m_client->All().size();
        Announce(kSyn);
        RequireSilence(since);
    }

    void OpensWithSyn() {
        m_partner.reset();
        Join();
        m_partner = std::make_unique<StartedPartner>(m_settings.command);
        AwaitAnswer(kSyn);
        Announce(kSynAck);
        AwaitAnswer(kAck);
        RequireReply();
    }

    void DiesAndReturns() {
        Connect();
        RequireReply();
        const std::size_t since = m_client->All().size();
        m_partner.reset();
        Require(m_client->AwaitLoss(m_service, m_settings.wait), "it did not leave the bus");
        m_partner = std::make_unique<StartedPartner>(m_settings.command);
        AwaitAnswer(kSyn, since);
        Announce(kSynAck);
        AwaitAnswer(kAck, since);
        RequireReply();
    }

    const Settings m_settings;
    RawEnd m_witness;  // sees who leaves the bus
    std::unique_ptr<StartedPartner> m_partner;
    std::unique_ptr<RawEnd> m_client;
    std::string m_service;  // the partner's unique name
};

}  // namespace

int Verify(int argc, char** argv) {
    OptionText command;
    gboolean echo = FALSE;
    double wait = 2;
    double reply_limit = 0.5;
    const GOptionEntry entries[] = {
        {"run", 'r', 0, G_OPTION_ARG_STRING, command.Place(), "Start the partner by this command",
         "COMMAND"},
        {"echo", 'e', 0, G_OPTION_ARG_NONE, &echo, "Each reply has to equal its request", nullptr},
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait, "Wait so long for an announcement (2)",
         "SECONDS"},
        {"reply-limit", 'l', 0, G_OPTION_ARG_DOUBLE, &reply_limit,
         "A reply has to come within this time, and 2 ms for each KiB (0.5)", "SECONDS"},
        {}};
    CommandLine line("verify", "NAME", "Tests whether the other end is a correct partner.",
                     kDetails);
    line.Add(entries);
    Settings settings;
    settings.channel = line.Parse(argc, argv, 1, 1).front();
    RequireUsableName(settings.channel);
    settings.command = command.Value();
    settings.echo = echo != FALSE;
    settings.wait = Seconds(wait);
    settings.reply_limit = Seconds(reply_limit);
    EndOnSignals();
    return Verification(std::move(settings)).Run();
}

}  // namespace tevrolctl
