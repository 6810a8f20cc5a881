// SPDX-License-Identifier: MIT
// tevrolctl verify: is the other end a correct partner?
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "devkit/loop.h"
#include "devkit/outside-text.h"
#include "devkit/subprocess.h"
#include "programs/common/command-line.h"
#include "programs/common/failure.h"
#include "programs/common/names.h"
#include "programs/common/output.h"
#include "programs/common/payload-argument.h"
#include "programs/common/run.h"
#include "programs/tevrolctl/bus/raw-end.h"
#include "programs/tevrolctl/commands/commands.h"
#include "programs/tevrolctl/ui/text.h"

namespace programs {
namespace {

constexpr const char* kDetails =
    "Plays the client end against the running service end of NAME, by hand, right and wrong, and\n"
    "prints TAP. The partner must not be bound to an application meanwhile. With --run the "
    "partner\n"
    "is started here, so that its own opening and its death are tested as well; one that ends is\n"
    "started again. Its standard input stays open.\n\n"
    "What the service end does with a notification cannot be seen from outside: tested is that it\n"
    "answers the next request and stays bound.\n\n"
    "Examples:\n"
    "  tevrolctl verify demo\n"
    "  tevrolctl verify --echo --run 'tevrolctl partner demo' --say 'notify hi' demo\n"
    "  tevrolctl verify --authenticating --request temperature thermostat\n"
    "  tevrolctl verify --only 'SYN' --only 12 --repeat 100 demo\n"
    "  prove --exec 'tevrolctl verify --echo' demo";

constexpr const char* kSilent = "org.freedesktop.DBus.Error.NoReply";

struct Settings {
    std::string channel;
    std::string command;            // starts the partner
    std::string said;               // to its standard input, so that it sends something itself
    std::vector<std::string> only;  // numbers or words of the tests to run; all where empty
    tevrol::Bytes request = {'?'};
    bool any_answer = false;  // to other requests than this one
    bool echo = false;
    bool authenticating = false;
    int repeat = 1;
    std::chrono::milliseconds wait{0};
    std::chrono::milliseconds reply_limit{0};
};

// Why a test fails.
class Mismatch : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Why a test cannot be made.
class Skip : public std::runtime_error {
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

Variant BodyOf(const tevrol::Bytes& payload) {
    return Variant(g_variant_ref_sink(PayloadBody(payload)));
}

tevrol::Bytes WithoutZerosAtTheEnd(tevrol::Bytes payload) {
    while (!payload.empty() && payload.back() == '\0') {
        payload.pop_back();
    }
    return payload;
}

// The partner as a child process, with whatever its command starts.
class StartedPartner {
public:
    explicit StartedPartner(const std::string& command) {
        try {
            MakeUntilTheEnd([&] { Start(command); }, [group = m_group] { End(*group); });
        } catch (const std::runtime_error& failure) {
            throw Failure(kExitNoPartner,
                          std::string("cannot start the partner: ") + failure.what());
        }
    }
    ~StartedPartner() {
        End(m_group->exchange(0));
        g_subprocess_wait(m_process.get(), nullptr, nullptr);
    }
    StartedPartner(const StartedPartner&) = delete;
    StartedPartner& operator=(const StartedPartner&) = delete;

    // The shell may have ended and the partner may go on.
    bool HasEnded() const {
        return tevrol::PidOf(m_process.get()) == 0 && (*m_group <= 0 || kill(-*m_group, 0) != 0);
    }

    void Say(const std::string& line) {
        const std::string text = line + "\n";
        g_output_stream_write_all(g_subprocess_get_stdin_pipe(m_process.get()), text.data(),
                                  text.size(), nullptr, nullptr, nullptr);
    }

private:
    void Start(const std::string& command) {
        m_process = tevrol::StartGroupDyingWithParent(
            {"/bin/sh", "-c", command},
            static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                          G_SUBPROCESS_FLAGS_STDOUT_SILENCE));
        *m_group = tevrol::PidOf(m_process.get());
    }
    static void End(pid_t group) {
        if (group > 0) {
            kill(-group, SIGKILL);
        }
    }

    tevrol::Subprocess m_process;
    // 0 when it has ended. A signal that ends this process looks it up.
    const std::shared_ptr<std::atomic<pid_t>> m_group = std::make_shared<std::atomic<pid_t>>(0);
};

// GLib aborts the process when no file descriptor is free.
void RequireFreeDescriptors() {
    constexpr std::size_t kNeeded = 16;
    std::vector<int> taken;
    for (int next = 0; next >= 0 && taken.size() < kNeeded;) {
        next = dup(STDERR_FILENO);
        if (next >= 0) {
            taken.push_back(next);
        }
    }
    for (const int descriptor : taken) {
        close(descriptor);
    }
    if (taken.size() < kNeeded) {
        throw Failure(kExitFailed, "needs " + std::to_string(kNeeded) +
                                       " free file descriptors, has " +
                                       std::to_string(taken.size()) + ": raise ulimit -n");
    }
}

class Verification {
public:
    explicit Verification(Settings settings)
        : m_settings(std::move(settings)), m_witness(m_settings.channel) {
        m_witness.WatchBroadcasts();
    }

    int Run() {
        try {
            return RunAll();
        } catch (const Failure& failure) {
            PrintLine(std::string("Bail out! ") + failure.what());
            throw;
        }
    }

    static void List() {
        int number = 0;
        for (const auto& test : Tests()) {
            PrintLine(std::to_string(++number) + " - " + test.first);
        }
    }
    // Throws Failure when there is no such test.
    static void RequireKnown(const std::string& wanted) {
        if (Chosen({wanted}).empty()) {
            throw Failure(kExitUsage, "no such test: " + wanted + "; see --list");
        }
    }

private:
    using Test = void (Verification::*)();
    using NamedTest = std::pair<const char*, Test>;

    int RunAll() {
        const auto tests = Chosen(m_settings.only);
        PrintLine("TAP version 13");
        PrintLine("1.." +
                  std::to_string(tests.size() * static_cast<std::size_t>(m_settings.repeat)));
        bool all = true;
        int number = 0;
        for (int round = 0; round < m_settings.repeat; ++round) {
            for (const auto& [name, test] : tests) {
                StartPartnerIfEnded();
                ++number;
                all = RunOne(number, name, test) && all;
                if (number == 1 && !all && m_service.empty() && HasShownNothing()) {
                    return BailOut();
                }
            }
        }
        return all ? kExitOk : kExitFailed;
    }

    // In the whole list the first test is whether it answers; another test may fail for its own
    // reason before the partner has answered anything.
    bool HasShownNothing() const {
        return m_settings.only.empty() || m_witness.All().empty();
    }

    // Nobody has answered the first announcement with what was awaited.
    int BailOut() {
        if (m_refused) {
            PrintLine("Bail out! this end cannot announce itself");
            return kExitNoPartner;
        }
        const bool late = m_witness.Await(kSynAck, 0, m_settings.wait).has_value();
        const auto heard = m_witness.All();
        const bool acknowledged = std::any_of(heard.begin(), heard.end(), [](const auto& one) {
            return std::string(one.stage) == kAck;
        });
        const std::string holder = m_witness.Holder(kSynAck);
        std::string fault;
        if (acknowledged) {
            fault = "answers SYN with ACK";
        } else if (!holder.empty()) {
            fault = "does not release SYN_ACK";
        } else if (late) {
            fault = "answers too late; see --wait";
        }
        if (!fault.empty()) {
            PrintLine("Bail out! the partner " + fault);
            return kExitFailed;
        }
        const std::string exporter = Exporter();
        PrintLine(exporter.empty()
                      ? "Bail out! no partner to test"
                      : "Bail out! " + exporter +
                            " exports the channel's object and has not answered: it is bound to "
                            "another process, stopped, or no service end; see tevrolctl check");
        return kExitNoPartner;
    }

    // A process with the channel's object, stopped ones included. Empty when there is none.
    std::string Exporter() {
        const Answer answer = m_witness.CallDriver("ListNames", nullptr);
        if (!answer.value) {
            return {};
        }
        const Variant names(g_variant_get_child_value(answer.value.get(), 0));
        for (gsize i = 0; i < g_variant_n_children(names.get()); ++i) {
            const gchar* name = nullptr;
            g_variant_get_child(names.get(), i, "&s", &name);
            if (*name == ':' && name != m_witness.UniqueName() && Exports(name)) {
                return name;
            }
        }
        return {};
    }

    bool Exports(const std::string& process) {
        constexpr std::chrono::milliseconds kLimit(200);
        const Answer answer = m_witness.Introspect(process, kLimit);
        return answer.value && HasTheMethod(answer);
    }

    static std::vector<NamedTest> Chosen(const std::vector<std::string>& only) {
        std::vector<NamedTest> chosen;
        int number = 0;
        for (const auto& test : Tests()) {
            ++number;
            const auto matches = [&](const std::string& wanted) {
                const bool is_number =
                    !wanted.empty() && wanted.find_first_not_of("0123456789") == std::string::npos;
                return is_number ? wanted == std::to_string(number)
                                 : std::string(test.first).find(wanted) != std::string::npos;
            };
            if (only.empty() || std::any_of(only.begin(), only.end(), matches)) {
                chosen.push_back(test);
            }
        }
        return chosen;
    }

    static std::vector<NamedTest> Tests() {
        using V = Verification;
        return {
            {"answers SYN with SYN_ACK", &V::AnswersSyn},
            {"sequence A ends with ACK and requests are answered", &V::SequenceA},
            {"sequence B: answers SYN_ACK with ACK, once", &V::SequenceB},
            {"hears an announcement when the name is released, not before", &V::HearsTheRelease},
            {"stays bound at a repeated SYN", &V::KeepsAtRepeatedSyn},
            {"stays bound at a repeated SYN_ACK", &V::KeepsAtRepeatedSynAck},
            {"takes a repeated ACK in silence", &V::TakesRepeatedAck},
            {"ignores an ACK when not bound", &V::IgnoresAckUnbound},
            {"notices the loss of a client and takes the next", &V::LossAndReturn},
            {"survives a client that dies while it owns its SYN name", &V::DeathInAnnouncement},
            {"answers an empty request", &V::EmptyRequest},
            {"answers a request of all byte values", &V::BinaryRequest},
            {"answers a request of 1 MiB", &V::LargeRequest},
            {"refuses a request of another type with InvalidArgs", &V::WrongRequest},
            {"refuses an unknown method", &V::UnknownMethod},
            {"takes notifications: empty, all byte values, 1 MiB", &V::Notifications},
            {"stays bound at a notification of another type", &V::WrongNotification},
            {"drops a stranger's SYN and SYN_ACK while bound", &V::StrangerAnnounces},
            {"answers a stranger's request, or refuses it with --authenticating",
             &V::StrangerRequests},
            {"survives a stranger's notification and loss", &V::StrangerNotifies},
            {"opens with SYN when it is started", &V::OpensWithSyn},
            {"dies and returns in sequence B", &V::DiesAndReturns},
            {"keeps zero bytes at the end of a payload", &V::ZerosAtTheEnd},
            {"repeats a SYN_ACK that was refused", &V::RepeatsSynAck},
            {"repeats an ACK that was refused", &V::RepeatsAck},
            {"becomes ready after announcements that have crossed", &V::Crossing},
            {"tells its interface when it is introspected", &V::TellsItsInterface},
            {"sends well-formed messages to its partner alone", &V::SendsWell},
            {"releases its names at once", &V::ReleasesAtOnce},
        };
    }

    bool RunOne(int number, const std::string& name, Test test) {
        std::string line = std::to_string(number) + " - " + name;
        std::string mismatch;
        try {
            (this->*test)();
        } catch (const Mismatch& found) {
            mismatch = found.what();
        } catch (const Skip& skipped) {
            line += std::string(" # SKIP ") + skipped.what();
        }
        LeaveAndSettle();
        if (m_partner && m_partner->HasEnded()) {
            mismatch += mismatch.empty() ? "the partner has ended" : "; the partner has ended";
        }
        PrintLine((mismatch.empty() ? Coloured(kGreen, "ok") : Coloured(kRed, "not ok")) + " " +
                  line);
        if (!mismatch.empty()) {
            PrintLine("  # " + tevrol::Printable(mismatch));
        }
        return mismatch.empty();
    }

    // ---- Steps ----

    void StartPartner() {
        const std::size_t since = m_witness.All().size();
        m_partner = std::make_unique<StartedPartner>(m_settings.command);
        m_witness.Await(kSyn, since, m_settings.wait);
    }

    void StartPartnerIfEnded() {
        if (m_settings.command.empty()) {
            return;
        }
        if (m_partner && (m_partner->HasEnded() || HasLeft())) {
            PrintLine("# the partner is gone: it is started again");
            m_partner.reset();
        }
        if (!m_partner) {
            StartPartner();
        }
    }

    // Whether nobody who has announced itself is on the bus. An end may come back under a new name.
    bool HasLeft() {
        const auto announcers = Announcers();
        return !announcers.empty() &&
               std::none_of(announcers.begin(), announcers.end(),
                            [&](const auto& announcer) { return m_witness.IsOnTheBus(announcer); });
    }

    // Joins as a new client, like a process that starts.
    void Join() {
        LeaveAndSettle();
        m_client = std::make_unique<RawEnd>(m_settings.channel);
        m_client->TakeMessages();
    }

    // Leaves, and waits until the bus has told everybody.
    void LeaveAndSettle() {
        if (m_client) {
            const std::string gone = m_client->UniqueName();
            const auto received = m_client->AllReceived();
            m_received.insert(m_received.end(), received.begin(), received.end());
            m_client.reset();
            m_witness.AwaitLoss(gone, m_settings.wait);
        }
    }

    void Announce(const char* stage) {
        Announce(*m_client, stage);
    }
    void Announce(RawEnd& end, const char* stage) {
        m_refused = !end.Announce(stage);
        Require(!m_refused,
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

    Answer Request(RawEnd& end, const tevrol::Bytes& payload) {
        // Some ends convert payloads byte by byte and need time for it.
        const auto limit = m_settings.reply_limit + std::chrono::milliseconds(payload.size() >> 9);
        return end.Call(m_service, kMethod, PayloadBody(payload), limit);
    }

    // Whether the partner has answered, be it with an error.
    static bool HasAnswered(const Answer& answer) {
        return answer.value || (!answer.error_name.empty() && answer.error_name != kSilent);
    }

    void RequireReply(RawEnd& end, const tevrol::Bytes& payload) {
        const Answer answer = Request(end, payload);
        if (m_settings.any_answer && payload != m_settings.request && !answer.value) {
            Require(HasAnswered(answer), "no answer: " + answer.error);
            return;
        }
        Require(answer.value != nullptr, "no reply: " + answer.error);
        GVariant* reply = answer.value.get();
        Require(g_variant_is_of_type(reply, G_VARIANT_TYPE("(ay)")) != FALSE,
                std::string("the reply is of type ") + g_variant_get_type_string(reply));
        if (m_settings.echo) {
            Require(g_variant_equal(reply, BodyOf(payload).get()) != FALSE,
                    "the reply differs from the request");
        }
        const tevrol::Bytes shorter = WithoutZerosAtTheEnd(payload);
        Require(shorter.empty() || shorter == payload ||
                    g_variant_equal(reply, BodyOf(shorter).get()) == FALSE,
                "the reply is the request without the zero bytes at its end");
    }
    void RequireReply() {
        RequireReply(*m_client, m_settings.request);
    }

    // Returns when the partner has handled all that was sent to it before, and what it called for.
    void AwaitRoundTrips() {
        for (int i = 0; i < 2; ++i) {
            const Answer answer = Request(*m_client, m_settings.request);
            Require(HasAnswered(answer), "no answer: " + answer.error);
        }
        m_client->Settle();
    }

    // How often the partner may announce a stage.
    using Allowance = std::map<std::string, std::size_t>;
    static constexpr std::size_t kOften = 1000;

    // Requires that the partner has announced nothing else since its first `since` announcements.
    void RequireSilence(std::size_t since, Allowance but_for = {}) {
        AwaitRoundTrips();
        const auto heard = m_client->All();
        for (std::size_t i = since; i < heard.size(); ++i) {
            Require(but_for[heard[i].stage] > 0, "it has announced " + heard[i].stage);
            --but_for[heard[i].stage];
        }
    }

    // A partner that is bound drops the SYN of another.
    void RequireBound() {
        const std::size_t since = m_client->All().size();
        RawEnd stranger(m_settings.channel);
        Announce(stranger, kSyn);
        try {
            RequireSilence(since);
        } catch (const Mismatch& mismatch) {
            throw Mismatch(std::string("it is not bound any more: ") + mismatch.what());
        }
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
        const auto heard = m_client->All();
        const auto answered = std::find_if(heard.begin(), heard.end(), [](const auto& one) {
            return std::string(one.stage) == kAck;
        });
        RequireSilence(static_cast<std::size_t>(answered - heard.begin()) + 1);
    }

    void HearsTheRelease() {
        Connect();
        Join();
        Require(m_client->Acquire(kSyn) == kPrimaryOwner, "this end cannot own its SYN name");
        RequireSilence(0, {{kSyn, kOften}});
        m_client->Release(kSyn);
        AwaitAnswer(kSynAck);
    }

    // An end that heals answers what is repeated; others drop it.
    void KeepsAtRepeatedSyn() {
        KeepsAtRepeated(kSyn, {{kSynAck, 1}});
    }
    void KeepsAtRepeatedSynAck() {
        KeepsAtRepeated(kSynAck, {{kAck, 1}});
    }
    void TakesRepeatedAck() {
        KeepsAtRepeated(kAck, {});
    }

    void KeepsAtRepeated(const char* stage, const Allowance& answer) {
        Connect();
        RequireReply();
        const std::size_t since = m_client->All().size();
        Announce(stage);
        RequireSilence(since, answer);
        RequireReply();
        RequireBound();
    }

    void IgnoresAckUnbound() {
        if (m_service.empty()) {
            Connect();  // to learn its name
        }
        Join();
        Announce(kAck);
        RequireSilence(0, {{kSyn, kOften}});
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
        // Its reply comes after the answer to the process that is gone, if it gives one.
        m_client->Call(m_service, kMethod, PayloadBody({'?'}), m_settings.reply_limit);
        m_client->Settle();
        const std::size_t since = m_client->All().size();
        // The partner has bound a process that is gone, and may need a moment to find out.
        const auto again = std::chrono::milliseconds(200);
        const auto answered = [&] {
            Announce(kSyn);
            return m_client->Await(kSynAck, since, again).has_value();
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
    void ZerosAtTheEnd() {
        Connect();
        RequireReply(*m_client, {'0', '\0'});
        RequireReply(*m_client, {'0', '\0', '\0', '\0', '\0'});
        RequireReply(*m_client, {'\0'});
    }

    std::string RequireRefusal(RawEnd& end, const char* method, GVariant* body) {
        const Answer answer = end.Call(m_service, method, body, m_settings.reply_limit);
        Require(!answer.value, "it was answered");
        Require(HasAnswered(answer), "no error came back: " + answer.error);
        return answer.error_name;
    }
    void WrongRequest() {
        Connect();
        const std::string error = RequireRefusal(*m_client, kMethod, g_variant_new("(s)", "text"));
        RequireReply();
        Require(error == kInvalidArguments, "the error is " + error);
    }
    void UnknownMethod() {
        Connect();
        RequireRefusal(*m_client, "Unknown", PayloadBody({'?'}));
        RequireReply();
    }

    void Notifications() {
        Connect();
        RequireReply();
        const std::size_t since = m_client->All().size();
        for (const tevrol::Bytes& payload : {tevrol::Bytes(), tevrol::AllByteValues(), Large()}) {
            m_client->Notify(m_service, PayloadBody(payload));
        }
        RequireReply(*m_client, Large());
        RequireReply();
        RequireSilence(since);
    }

    void WrongNotification() {
        Connect();
        m_client->Notify(m_service, g_variant_new("(s)", "text"));
        RequireReply();
        RequireBound();
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
        if (m_settings.authenticating) {
            RequireRefusal(stranger, kMethod, PayloadBody(m_settings.request));
        } else {
            RequireReply(stranger, m_settings.request);
        }
        RequireReply();
    }

    void StrangerNotifies() {
        Connect();
        {
            RawEnd stranger(m_settings.channel);
            stranger.Notify(m_service, PayloadBody({'!'}));
            stranger.Settle();
        }
        RequireReply();
        RequireBound();
    }

    void RequireCommand() const {
        if (m_settings.command.empty()) {
            throw Skip("needs --run");
        }
    }

    void OpensWithSyn() {
        RequireCommand();
        m_partner.reset();
        Join();
        m_partner = std::make_unique<StartedPartner>(m_settings.command);
        AwaitAnswer(kSyn);
        Announce(kSynAck);
        AwaitAnswer(kAck);
        RequireReply();
    }

    void DiesAndReturns() {
        RequireCommand();
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

    void RepeatsSynAck() {
        RepeatsRefused(kSynAck, kSyn);
    }
    void RepeatsAck() {
        RepeatsRefused(kAck, kSynAck);
    }

    // Another process owns the name of the partner's answer to `opening` for a while.
    void RepeatsRefused(const char* answer, const char* opening) {
        RawEnd owner(m_settings.channel);
        m_witness.Ignore(owner.UniqueName());
        Join();
        m_client->Ignore(owner.UniqueName());
        if (owner.Acquire(answer, kService) != kPrimaryOwner) {
            throw Skip(std::string("this user cannot own the partner's ") + answer + " name");
        }
        if (m_service.empty()) {
            m_service = Exporter();  // no test before this one has met it
        }
        Require(!m_service.empty(), "no partner to test");
        const std::size_t since = m_client->All().size();
        Announce(opening);
        // When it has answered these, it has been refused. Nobody but the partner is told of that.
        Request(*m_client, m_settings.request);
        Request(*m_client, m_settings.request);
        Require(owner.Queue(answer, kService).size() <= 1, "it queues for its name");
        owner.Release(answer, kService);
        AwaitAnswer(answer, since);
    }

    // Both ends have announced SYN and SYN_ACK before they have heard the other's. An end that
    // heals answers the SYN_ACK; the others wait for the ACK that comes in the end.
    void Crossing() {
        Join();
        Announce(kSyn);
        AwaitAnswer(kSynAck);
        const std::size_t since = m_client->All().size();
        Announce(kSynAck);
        RequireSilence(since, {{kSyn, kOften}, {kSynAck, kOften}, {kAck, 1}});
        Announce(kAck);
        RequireReply();
        RequireBound();
    }

    void TellsItsInterface() {
        Connect();
        const Answer answer = m_client->Introspect(m_service, m_settings.reply_limit);
        Require(answer.value != nullptr, "no introspection: " + answer.error);
        Require(HasTheMethod(answer),
                std::string("no method ") + kMethod + R"( from "ay" to "ay")");
    }

    // Whether the XML of `answer` has the method of a channel.
    static bool HasTheMethod(const Answer& answer) {
        if (g_variant_is_of_type(answer.value.get(), G_VARIANT_TYPE("(s)")) == FALSE) {
            return false;
        }
        const gchar* xml = nullptr;
        g_variant_get(answer.value.get(), "(&s)", &xml);
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
        if (node == nullptr) {
            return false;
        }
        const GDBusInterfaceInfo* channel = g_dbus_node_info_lookup_interface(node, kInterface);
        const GDBusMethodInfo* method =
            channel == nullptr ? nullptr
                               : g_dbus_interface_info_lookup_method(
                                     const_cast<GDBusInterfaceInfo*>(channel), kMethod);
        const bool has =
            method != nullptr && TakesAPayload(method->in_args) && TakesAPayload(method->out_args);
        g_dbus_node_info_unref(node);
        return has;
    }
    static bool TakesAPayload(GDBusArgInfo** arguments) {
        return arguments != nullptr && arguments[0] != nullptr && arguments[1] == nullptr &&
               std::string(arguments[0]->signature) == "ay";
    }

    // What the partner has sent by itself, in this test and in those before.
    void SendsWell() {
        Connect();
        RequireReply();
        if (m_partner && !m_settings.said.empty()) {
            m_partner->Say(m_settings.said);
            const auto has_sent = [&] {
                return !m_client->AllReceived().empty() || !Broadcasts().empty();
            };
            Require(tevrol::IterateUntil(has_sent, m_settings.wait),
                    "it has sent nothing within " + Duration(m_settings.wait.count() * 1000));
        }
        auto received = m_received;
        const auto last = m_client->AllReceived();
        received.insert(received.end(), last.begin(), last.end());
        const auto broadcasts = Broadcasts();
        Require(broadcasts.empty(), "it has sent a notification to everybody");
        for (const auto& message : received) {
            RequireWellFormed(message);
        }
        if (received.empty()) {
            throw Skip("it has sent nothing; see --say");
        }
    }

    // All processes that have announced themselves as the service end.
    std::set<std::string> Announcers() const {
        std::set<std::string> announcers;
        for (const auto& heard : m_witness.All()) {
            announcers.insert(heard.announcer);
        }
        return announcers;
    }

    // Those of processes that have announced themselves.
    std::vector<RawEnd::Received> Broadcasts() const {
        const auto announcers = Announcers();
        std::vector<RawEnd::Received> broadcasts;
        for (const auto& message : m_witness.AllReceived()) {
            if (announcers.count(message.sender) != 0) {
                broadcasts.push_back(message);
            }
        }
        return broadcasts;
    }

    void RequireWellFormed(const RawEnd::Received& message) const {
        const std::string what = message.is_request ? "its request" : "its notification";
        const char* const member = message.is_request ? kMethod : kNotification;
        Require(message.path == ObjectPath(m_settings.channel),
                what + " is for the object " + message.path);
        Require(message.member == member, what + " is called " + message.member);
        Require(message.type == "ay", what + " is of type \"" + message.type + "\"");
    }

    // In all tests before.
    void ReleasesAtOnce() {
        for (const auto& heard : m_witness.All()) {
            Require(heard.held <= m_settings.reply_limit,
                    "it has owned " + heard.stage + " for " + Duration(heard.held.count()));
        }
        for (const char* stage : {kSyn, kSynAck, kAck}) {
            // An announcement may just be under way.
            const auto is_free = [&] { return m_witness.Holder(stage).empty(); };
            Require(tevrol::IterateUntil(is_free, m_settings.reply_limit),
                    m_witness.Holder(stage) + " does not release " + stage);
        }
    }

    const Settings m_settings;
    RawEnd m_witness;  // sees who leaves the bus, and what is sent to everybody
    std::unique_ptr<StartedPartner> m_partner;
    std::unique_ptr<RawEnd> m_client;
    std::vector<RawEnd::Received> m_received;  // by earlier clients
    std::string m_service;                     // the partner's unique name
    bool m_refused = false;                    // the last announcement
};

}  // namespace

int Verify(int argc, char** argv) {
    OptionText command;
    OptionText said;
    OptionText request;
    gchar** only = nullptr;
    gboolean echo = FALSE;
    gboolean authenticating = FALSE;
    gboolean list = FALSE;
    gint repeat = 1;
    double wait = 2;
    double reply_limit = 0.5;
    const GOptionEntry entries[] = {
        {"run", 0, 0, G_OPTION_ARG_FILENAME, command.Place(),
         "Start the partner by this command of the shell", "COMMAND"},
        {"say", 0, 0, G_OPTION_ARG_FILENAME, said.Place(),
         "With --run: write this line to the partner's standard input, so that it sends something",
         "LINE"},
        {"echo", 0, 0, G_OPTION_ARG_NONE, &echo, "Each reply has to equal its request", nullptr},
        {"request", 0, 0, G_OPTION_ARG_FILENAME, request.Place(),
         "The partner has to reply to this request, and may refuse others", "PAYLOAD"},
        {"authenticating", 0, 0, G_OPTION_ARG_NONE, &authenticating,
         "The partner has to refuse strangers' requests", nullptr},
        {"only", 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &only,
         "Run the test of this number, or those with these words in their names; may be repeated",
         "TEST"},
        {"list", 0, 0, G_OPTION_ARG_NONE, &list, "List the tests", nullptr},
        {"repeat", 0, 0, G_OPTION_ARG_INT, &repeat, "Run the tests so many times", "COUNT"},
        {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &wait, "Wait so long for an announcement (2)",
         "SECONDS"},
        {"reply-limit", 'l', 0, G_OPTION_ARG_DOUBLE, &reply_limit,
         "A reply has to come, and a name to be released, within this time; a reply has 2 ms more "
         "for each KiB (0.5)",
         "SECONDS"},
        {}};
    CommandLine line("tevrolctl verify", "NAME",
                     "Tests whether the other end is a correct partner.", kDetails);
    line.Add(entries);
    const auto arguments = line.Parse(argc, argv, 0, 1);
    if (list != FALSE) {
        Verification::List();
        return kExitOk;
    }
    if (arguments.empty()) {
        throw Failure(kExitUsage, "too few arguments; see tevrolctl verify --help");
    }
    Settings settings;
    settings.channel = arguments.front();
    RequireUsableName(settings.channel);
    settings.command = command.Value();
    settings.said = said.Value();
    settings.only = TakeTexts(only);
    for (const std::string& wanted : settings.only) {
        Verification::RequireKnown(wanted);
    }
    if (said.Given() && !command.Given()) {
        throw Failure(kExitUsage, "--say needs --run");
    }
    if (repeat < 1) {
        throw Failure(kExitUsage, "--repeat needs a number from 1 on");
    }
    settings.repeat = repeat;
    settings.any_answer = request.Given();
    if (request.Given()) {
        settings.request = ReadPayload(request.Value());
    }
    settings.echo = echo != FALSE;
    settings.authenticating = authenticating != FALSE;
    settings.wait = Seconds(wait);
    settings.reply_limit = Seconds(reply_limit);
    RequireFreeDescriptors();
    // Static, so that a signal ends the partner too: exit() destroys it.
    static Verification verification(std::move(settings));
    return verification.Run();
}

}  // namespace programs
