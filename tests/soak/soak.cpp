// SPDX-License-Identifier: MIT
// A channel under load for a while: a partner process that is killed and restarted at random and
// now and then owns the name that this end wants to announce, requests and notifications both ways,
// each verified, and none lost, doubled or out of order. At the end, what the process holds is
// compared with what it held at the start and what the design keeps.
//
//   tevrol-soak SECONDS [SEED]        this end, with a private bus
//   tevrol-soak CHANNEL partner SEED  its partner
#include <malloc.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "devkit/loop.h"
#include "devkit/partner-process.h"
#include "devkit/partner.h"
#include "devkit/private-bus.h"
#include "ipc/tevrol-dbus-remote.h"
#include "platform/dlog.h"
#include "tests/soak/load.h"
#include "tests/support/device-log.h"

namespace {

using soak::Answer;
using soak::Below;
using soak::Expect;
using soak::g_failures;
using soak::Heading;
using soak::Holdings;
using soak::MakePayload;
using soak::Measure;
using soak::Number;
using soak::OpenDescriptors;
using soak::Random;
using soak::ReadHeading;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tevrol::Bytes;

constexpr const char* kChannel = "soak";
constexpr std::uint32_t kSenders = 4;         // threads at this end
constexpr std::uint32_t kPartnerSenders = 2;  // and at the other
// Notifications are queued without an answer, so each batch ends with a request: its reply says
// that all before it has been taken, and nothing piles up.
constexpr int kBatch = 60;
constexpr std::chrono::seconds kLong{300};
constexpr unsigned long kMessagesInLong = 1000000;
const Bytes kHowMany = tevrol::ToBytes("how many notifications?");

// Takes the messages of some senders, notifications and requests alike: of each sender all, once,
// in the order in which they were sent, from its first on.
class Receiver {
public:
    // What is wrong with the message; empty where it is intact and the next of its sender.
    std::string Take(const Bytes& payload) {
        Heading heading{};
        const std::string wrong = ReadHeading(payload, heading);
        if (!wrong.empty()) {
            return wrong;
        }
        const std::uint32_t expected = m_next[heading.sender];
        m_next[heading.sender] = heading.number + 1;
        return heading.number == expected
                   ? ""
                   : "of sender " + std::to_string(heading.sender) + " has the number " +
                         std::to_string(heading.number) + ", not " + std::to_string(expected);
    }

    void Restart() {
        m_next.clear();
    }

private:
    std::map<std::uint32_t, std::uint32_t> m_next;
};

void ExpectIsNext(Receiver& receiver, const Bytes& payload, const std::string& message) {
    const std::string wrong = receiver.Take(payload);
    Expect(wrong.empty(), message + " " + wrong);
}

// ---- What the channel does that leaves something behind ----

std::atomic<int> g_bound{0};
std::atomic<int> g_lost{0};
std::atomic<int> g_refused{0};
std::atomic<int> g_threads_started{0};
std::atomic<int> g_threads_finished{0};

std::mutex g_kept_mutex;
std::vector<GVariant*> g_kept;  // replies that the channel holds a reference to

// ---- The partner process ----

void TalkAsPartner(tevrol::Partner& partner, std::uint32_t sender, unsigned seed) {
    Random random(seed);
    std::uint32_t number = 0;
    const auto next = [&] { return MakePayload({sender, number++, Number(random)}); };
    for (;;) {
        if (!partner.IsReady()) {
            std::this_thread::sleep_for(milliseconds(1));
            continue;
        }
        for (int i = 0; i < kBatch; ++i) {
            partner.Notify(next());
        }
        const Bytes request = next();
        const tevrol::PartnerReply reply = partner.Request(request).get();
        Expect(reply.ok && reply.payload == Answer(request), "a reply to the partner");
    }
}

// Ends when it is killed.
int RunPartner(const std::string& channel, unsigned seed) {
    std::atomic<unsigned> notifications{0};
    Receiver receiver;  // on the partner's thread
    const auto answer = [&](const Bytes& request) {
        if (request == kHowMany) {
            return tevrol::ToBytes(std::to_string(notifications));
        }
        ExpectIsNext(receiver, request, "a request to the partner");
        return Answer(request);
    };
    const auto event = [&](const tevrol::PartnerEvent& happened) {
        if (happened.kind == tevrol::PartnerEvent::Kind::Notification) {
            ExpectIsNext(receiver, happened.payload, "a notification to the partner");
            ++notifications;
        }
    };
    Random random(seed);
    const bool refuses = Below(random, 4) == 0;
    tevrol::Partner partner(channel, {answer, event});
    partner.Join();
    if (refuses) {
        partner.HoldClientName(tevrol::HandshakeStage::SynAck);
    }
    partner.Open();
    std::vector<std::thread> senders;
    senders.reserve(kPartnerSenders);
    for (std::uint32_t i = 0; i < kPartnerSenders; ++i) {
        senders.emplace_back(TalkAsPartner, std::ref(partner), i, Number(random));
    }
    if (refuses) {
        // Up to two attempts of the resend thread fail too.
        std::this_thread::sleep_for(milliseconds(Below(random, 1200)));
        partner.ReleaseClientName(tevrol::HandshakeStage::SynAck);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    return 0;
}

// ---- This end ----

// Sending reads the partner's state without a lock, so an application keeps losses and sending
// apart. Here the one who ends the partner closes the gate first and waits for all to be out.
class Gate {
public:
    void Open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void Close() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_open = false;
        m_changed.wait(lock, [&] { return m_inside == 0; });
    }
    void End() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }
    // False when it is over.
    bool Enter() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_open || m_ended; });
        m_inside += m_ended ? 0 : 1;
        return !m_ended;
    }
    void Leave() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_inside;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_ended = false;
    int m_inside = 0;
};

class SoakChannel : public TevrolDbusRemote {
public:
    SoakChannel() : TevrolDbusRemote(kChannel) {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        ExpectIsNext(receiver, data, "a request to this end");
        ++requests;
        return Answer(data);
    }
    void HandleNotification(std::vector<char>& data) override {
        ExpectIsNext(receiver, data, "a notification to this end");
        ++notifications;
    }
    void HandleConnectionReady(bool, const std::string&) override {}

    // On the loop thread. What a partner sends last may be cut off when it is killed: what has come
    // is a beginning without a gap.
    Receiver receiver;
    unsigned requests = 0;
    unsigned notifications = 0;
};

// Releases the replies that the channel keeps, so that what else has grown shows; their number.
std::size_t ReleaseKeptReplies() {
    std::vector<GVariant*> kept;
    kept.swap(g_kept);
    for (GVariant* reply : kept) {
        g_variant_unref(reply);
    }
    return kept.size();
}

class Soak {
public:
    Soak(std::string program, unsigned seed) : m_program(std::move(program)), m_random(seed) {
        for (std::uint32_t i = 0; i < kSenders; ++i) {
            m_senders.emplace_back([this, i, first = Number(m_random)] { Talk(i, first); });
        }
    }
    ~Soak() {
        m_gate.End();
        for (std::thread& sender : m_senders) {
            sender.join();
        }
    }
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    void Run(std::chrono::seconds duration) {
        const auto start = steady_clock::now();
        // The first second creates what stays: pools, the library's threads, the allocator's.
        StartPartner();
        TalkFor(milliseconds(1000));
        EndPartner();
        ReleaseKeptReplies();
        const Holdings before = Measure();
        const unsigned long warm_up = Messages();
        while (g_failures == 0 && steady_clock::now() - start < duration) {
            StartPartner();
            TalkFor(milliseconds(100 + Below(m_random, 2900)));
            EndPartner();
        }
        // As at the first measurement: no partner, and with it nothing under way.
        Compare(before);
        const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
        const unsigned long messages = Messages();
        std::printf(
            "%lu messages in %.0f s (%.0f a second; %lu of them before the first "
            "measurement):\n  to the partner %lu requests, %lu notifications; from it %u "
            "requests, %u notifications\n%d restarts, %d refused announcements\n",
            messages, seconds, static_cast<double>(messages) / seconds, warm_up, m_requests.load(),
            m_notifications.load(), m_channel.requests, m_channel.notifications, m_ended - 1,
            g_refused.load());
        if (duration >= kLong) {
            Expect(messages >= kMessagesInLong, "fewer messages than a long run has");
        }
    }

private:
    unsigned long Messages() const {
        return m_requests + m_notifications + m_channel.requests + m_channel.notifications;
    }

    void Talk(std::uint32_t sender, unsigned seed) {
        Random random(seed);
        const auto next = [&] {
            return MakePayload({sender, m_sent_by[sender]++, Number(random)});
        };
        while (m_gate.Enter()) {
            for (int i = 0; i < kBatch; ++i) {
                Bytes payload = next();
                m_channel.SendNotification(payload);
            }
            Bytes request = next();
            Expect(m_channel.SendMessage(request) == Answer(request), "a reply to this end");
            m_notifications += kBatch;
            m_sent_to_this += kBatch;
            ++m_requests;
            m_gate.Leave();
        }
    }

    // The loop runs meanwhile.
    void TalkFor(milliseconds time) {
        m_gate.Open();
        tevrol::IterateUntil([] { return g_failures != 0; }, time);
        m_gate.Close();
        Bytes question = kHowMany;
        const Bytes taken = m_channel.SendMessage(question);
        Expect(taken == tevrol::ToBytes(std::to_string(m_sent_to_this)),
               "the partner has taken another number of notifications");
        Expect(!m_partner->Find("failed"), "at the partner");
    }

    // Some are gone again as soon as they are bound, ready or not.
    void StartPartner() {
        LaunchPartner();
        while (g_failures == 0 && Below(m_random, 8) == 0) {
            EndPartner();
            LaunchPartner();
        }
        Expect(tevrol::IterateUntil([&] { return m_channel.IsConnectionReady(); }),
               "a partner has not become ready");
    }

    void LaunchPartner() {
        m_sent_to_this = 0;
        for (auto& sent : m_sent_by) {
            sent = 0;
        }
        m_channel.receiver.Restart();
        m_partner.emplace(m_program, kChannel,
                          std::vector<std::string>{"partner", std::to_string(Number(m_random))});
        Expect(tevrol::IterateUntil([] { return g_bound > g_lost; }), "no partner was bound");
    }

    // Returns when this end has noticed: a partner that starts sooner might not be answered, and
    // neither might one whose answer is refused while the resend thread is about to end.
    void EndPartner() {
        m_partner->Kill();
        const auto over = [] {
            return g_lost == g_bound && g_threads_finished == g_threads_started;
        };
        Expect(tevrol::IterateUntil(over), "the loss of a partner");
        m_partner.reset();
        ++m_ended;
        // GIO closes the pipes of a process that has ended on a thread of its own.
        Expect(tevrol::IterateUntil([&] { return OpenDescriptors().pipes == m_own_pipes; }),
               "the pipes of a partner are still open");
    }

    static void Compare(const Holdings& before) {
        const Holdings with_replies = Measure();
        const std::size_t replies = ReleaseKeptReplies();
        const Holdings after = Measure();
        Print("after the first second", before);
        Print("at the end", with_replies);
        Print("without the kept replies", after);
        std::printf("%zu kept replies held %zu KiB; %d resend threads have ended\n", replies,
                    (with_replies.heap - after.heap) / 1024, g_threads_finished.load());
        Expect(after.threads == before.threads, "the number of threads has changed");
        Expect(after.descriptors == before.descriptors, "the number of descriptors has changed");
        // GLib's tables grow to the most that they have held.
        constexpr std::size_t kHeapTolerance = std::size_t{32} * 1024;
        // A thread that has ended and was not joined keeps its table of thread-local storage.
        constexpr std::size_t kThreadTable = 1024;
        const auto ended = static_cast<std::size_t>(g_threads_finished);
        Expect(after.heap < before.heap + kHeapTolerance + ended * kThreadTable,
               "the heap has grown");
        // The replies leave pages behind that hold something else too. The thread also keeps the
        // pages of its stack that it has touched.
        constexpr long kPagesTolerance = 1024;
        constexpr long kStackKib = 32;
        Expect(after.resident_kib <
                   before.resident_kib + kPagesTolerance + g_threads_finished * kStackKib,
               "resident memory has grown");
    }

    const std::string m_program;
    Random m_random;
    SoakChannel m_channel;
    const long m_own_pipes = OpenDescriptors().pipes;  // with no partner
    Gate m_gate;
    std::optional<tevrol::PartnerProcess> m_partner;
    std::atomic<unsigned long> m_requests{0};
    std::atomic<unsigned long> m_notifications{0};
    std::atomic<unsigned> m_sent_to_this{0};  // notifications to this partner process
    std::array<std::atomic<std::uint32_t>, kSenders> m_sent_by{};  // messages to it, by sender
    int m_ended = 0;
    std::vector<std::thread> m_senders;
};

}  // namespace

// The log counts.
bool TakeLogLine(int /*log_id*/, int priority, const char* /*tag*/, const char* text) {
    const auto says = [&](const char* message) { return std::strstr(text, message) != nullptr; };
    if (says("Monitor unique name")) {
        ++g_bound;
    } else if (says("Connection lost with partner")) {
        ++g_lost;
    } else if (says("Timer thread create status")) {
        ++g_threads_started;
    } else if (says("Finished timer thread")) {
        ++g_threads_finished;
    } else if (says("Cannot own name due to")) {
        ++g_refused;
    } else if (priority == DLOG_ERROR) {
        Expect(false, std::string("the log says: ") + text);
    }
    return true;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {
GVariant* __real_g_dbus_proxy_call_sync(GDBusProxy*, const gchar*, GVariant*, GDBusCallFlags, gint,
                                        GCancellable*, GError**);
GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method,
                                        GVariant* parameters, GDBusCallFlags flags, gint timeout,
                                        GCancellable* cancellable, GError** error) {
    GVariant* reply = __real_g_dbus_proxy_call_sync(proxy, method, parameters, flags, timeout,
                                                    cancellable, error);
    if (reply != nullptr) {
        const std::lock_guard<std::mutex> lock(g_kept_mutex);
        g_kept.push_back(reply);
    }
    return reply;
}
}
// NOLINTEND(bugprone-reserved-identifier)

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[2]) == "partner") {
        return RunPartner(argv[1], static_cast<unsigned>(std::stoul(argv[3])));
    }
    if (argc < 2) {
        std::cerr << "usage: tevrol-soak SECONDS [SEED]" << std::endl;
        return 2;
    }
    const unsigned seed = soak::ChooseSeed(argc > 2 ? argv[2] : nullptr);
    mallopt(M_ARENA_MAX, 1);  // so that a new thread brings no arena of its own
    const tevrol::PrivateBus bus;
    Soak(std::filesystem::canonical("/proc/self/exe"), seed)
        .Run(std::chrono::seconds(std::stol(argv[1])));
    std::cout << (g_failures == 0 ? "as expected" : "NOT as expected") << std::endl;
    std::cout.flush();
    return g_failures == 0 ? 0 : 1;
}
