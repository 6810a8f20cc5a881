// SPDX-License-Identifier: MIT
// A tevrol::Channel under load for a while, from many threads that know nothing of each other.
// First its partner, a process, is stopped, killed and restarted at random, now and then with a
// standby; then the bus is, with both ends in this process. Each message is verified: intact, in
// order, none doubled, and none lost but what a partner that has died had not taken. At the end,
// this process holds what it held at the start.
//
//   channel-soak SECONDS [SEED]    this end, with a private bus
//   channel-soak partner SEED      its partner, which ends when it is killed
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "devkit/partner-process.h"
#include "devkit/private-bus.h"
#include "tests/soak/load.h"
#include "tevrol/channel.h"

namespace {

using soak::Below;
using soak::Expect;
using soak::g_failures;
using soak::Heading;
using soak::Number;
using soak::Random;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tevrol::Bytes;
using tevrol::Error;

constexpr std::chrono::seconds kLong{30};
constexpr unsigned kSenders = 8;  // threads at this end
constexpr unsigned kPartnerSenders = 2;
constexpr int kBatch = 60;
constexpr std::uint32_t kUnnumbered = UINT32_MAX;  // requests

// What stands behind the answer to a request: which time with a partner it is, for all processes,
// and which notification of the requester is the next.
struct Trailer {
    std::uint64_t session;
    std::uint32_t next;
};

// Waits until the condition holds; false when it does not for long.
template <typename Condition>
bool Await(const Condition& holds) {
    const auto until = steady_clock::now() + kLong;
    while (!holds() && steady_clock::now() < until) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    return holds();
}

// What an end has taken. In the handlers, which run one at a time.
class Receiver {
public:
    explicit Receiver(std::uint64_t first_session) : m_session(first_session) {}

    void OnReady() {
        ++m_session;
        m_in_session.clear();
    }

    void OnNotification(const Bytes& payload) {
        Heading heading{};
        std::string wrong = ReadHeading(payload, heading);
        if (wrong.empty()) {
            std::uint32_t& next = m_next[heading.sender];
            // What was sent to a partner that died is lost. All else comes, in order.
            bool& in_session = m_in_session[heading.sender];
            if (in_session ? heading.number != next : heading.number < next) {
                wrong = "of sender " + std::to_string(heading.sender) + " has the number " +
                        std::to_string(heading.number) + ", not " + std::to_string(next);
            }
            in_session = true;
            next = heading.number + 1;
        }
        Expect(wrong.empty(), "a notification " + wrong);
        ++notifications;
    }

    Bytes OnRequest(const Bytes& payload) {
        Heading heading{};
        const std::string wrong = ReadHeading(payload, heading);
        Expect(wrong.empty(), "a request " + wrong);
        Bytes answer = soak::Answer(payload);
        Trailer trailer{};
        trailer.session = m_session;
        const auto known = m_next.find(heading.sender);
        trailer.next = known == m_next.end() ? 0 : known->second;
        const std::size_t size = answer.size();
        answer.resize(size + sizeof trailer);
        std::memcpy(&answer[size], &trailer, sizeof trailer);
        ++requests;
        return answer;
    }

    // Of senders that are no more.
    void Forget() {
        m_next.clear();
    }

    std::atomic<unsigned long> requests{0};
    std::atomic<unsigned long> notifications{0};

private:
    std::uint64_t m_session;
    std::map<std::uint32_t, std::uint32_t> m_next;
    std::map<std::uint32_t, bool> m_in_session;
};

// One end, and the threads that send by it for as long as it lives.
class End {
public:
    End(tevrol::Role role, unsigned senders, Random& random)
        : m_receiver((std::uint64_t{Number(random)} << 32) | Number(random)),
          m_channel("soak", role, MakeHandlers()) {
        for (unsigned i = 0; i < senders; ++i) {
            m_senders.emplace_back(
                [this, sender = Number(random), seed = Number(random)] { Send(sender, seed); });
        }
    }
    ~End() {
        m_ends = true;
        for (std::thread& sender : m_senders) {
            sender.join();
        }
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    bool WaitReady() const {
        return m_channel.WaitReady(kLong);
    }
    int Losses() const {
        return m_losses;
    }
    // Waits until another loss than those before has been told.
    bool AwaitLoss(int before) const {
        return Await([&] { return m_losses > before; });
    }
    // While nothing is under way.
    void Forget() {
        m_receiver.Forget();
    }
    unsigned long Messages() const {
        return m_receiver.requests + m_receiver.notifications + m_replies + m_sent;
    }

private:
    tevrol::Handlers MakeHandlers() {
        tevrol::Handlers handlers;
        handlers.ready = [this](const std::string&) {
            Expect(!m_ready.exchange(true), "ready follows ready");
            m_receiver.OnReady();
        };
        handlers.lost = [this](const std::string&) {
            Expect(m_ready.exchange(false), "lost follows lost");
            ++m_losses;
        };
        handlers.notification = [this](const Bytes& payload) {
            m_receiver.OnNotification(payload);
        };
        handlers.request = [this](const Bytes& payload) { return m_receiver.OnRequest(payload); };
        return handlers;
    }

    void Send(std::uint32_t sender, std::uint32_t seed) {
        Random random(seed);
        std::uint32_t number = 0;
        std::uint64_t session = 0;
        while (!m_ends) {
            if (!m_channel.WaitReady(milliseconds(20)) || !Notify(random, sender, number)) {
                continue;
            }
            const Bytes request = soak::MakePayload({sender, kUnnumbered, Number(random)});
            const tevrol::Reply reply = m_channel.Request(request, kLong);
            if (reply) {
                CheckReply(request, reply.payload, number, session);
            } else {
                ExpectNobodyThere(reply.error);
            }
        }
    }

    // False where the partner is gone.
    bool Notify(Random& random, std::uint32_t sender, std::uint32_t& number) {
        for (int i = 0; i < kBatch; ++i) {
            if (const auto error =
                    m_channel.Notify(soak::MakePayload({sender, number, Number(random)}))) {
                ExpectNobodyThere(error);
                return false;
            }
            ++number;
            ++m_sent;
        }
        return true;
    }

    static void ExpectNobodyThere(const std::error_code& error) {
        Expect(error == Error::NotReady || error == Error::PartnerLost || error == Error::NoBus,
               "an operation fails: " + error.message());
    }

    void CheckReply(const Bytes& request, const Bytes& reply, std::uint32_t number,
                    std::uint64_t& session) {
        Trailer trailer{};
        const Bytes answer = soak::Answer(request);
        if (reply.size() != answer.size() + sizeof trailer ||
            !std::equal(answer.begin(), answer.end(), reply.begin())) {
            Expect(false, "a reply is not intact");
            return;
        }
        std::memcpy(&trailer, &reply[answer.size()], sizeof trailer);
        // With the same partner as before, all that was sent meanwhile went there.
        if (trailer.session == session) {
            Expect(trailer.next == number, "the partner has taken " + std::to_string(trailer.next) +
                                               " notifications of " + std::to_string(number));
        }
        session = trailer.session;
        ++m_replies;
    }

    std::atomic<bool> m_ends{false};
    std::atomic<bool> m_ready{false};
    std::atomic<int> m_losses{0};
    std::atomic<unsigned long> m_replies{0};
    std::atomic<unsigned long> m_sent{0};
    Receiver m_receiver;
    tevrol::Channel m_channel;
    std::vector<std::thread> m_senders;
};

int RunPartner(unsigned seed) {
    Random random(seed);
    const End end(tevrol::Role::Service, kPartnerSenders, random);
    for (;;) {
        pause();
    }
}

// ---- The partner comes and goes ----

class Partners {
public:
    Partners(std::string program, Random& random)
        : m_program(std::move(program)),
          m_random(random),
          m_end(tevrol::Role::Client, kSenders, random) {}

    void Run(steady_clock::duration duration) {
        const auto until = steady_clock::now() + duration;
        // The first second creates what stays.
        auto partner = Start();
        Talk(1000);
        End(std::move(partner));
        BeAlone();
        const soak::Holdings before = soak::Measure();
        while (g_failures == 0 && steady_clock::now() < until) {
            partner = Start();
            Talk(Below(m_random, 300));
            if (Below(m_random, 4) == 0) {
                partner->Stop();
                std::this_thread::sleep_for(milliseconds(Below(m_random, 50)));
                partner->Signal(SIGCONT);
            }
            if (Below(m_random, 4) == 0) {
                auto standby = Launch();
                Talk(Below(m_random, 100));
                End(std::move(partner));
                Expect(m_end.WaitReady(), "the standby does not take over");
                End(std::move(standby));
            } else {
                End(std::move(partner));
            }
            BeAlone();
        }
        const soak::Holdings after = soak::Measure();
        soak::Print("after the first second", before);
        soak::Print("at the end", after);
        Expect(after.threads == before.threads, "the number of threads has changed");
        Expect(after.descriptors == before.descriptors, "the number of descriptors has changed");
        // Containers keep room for the most that they have held.
        constexpr std::size_t kHeapTolerance = std::size_t{64} * 1024;
        Expect(after.heap < before.heap + kHeapTolerance, "the heap has grown");
    }

    unsigned long Messages() const {
        return m_end.Messages();
    }
    int Ended() const {
        return m_ended;
    }

private:
    using Process = std::unique_ptr<tevrol::PartnerProcess>;

    Process Launch() {
        return std::make_unique<tevrol::PartnerProcess>(
            std::vector<std::string>{m_program, "partner", std::to_string(Number(m_random))});
    }

    Process Start() {
        Process process = Launch();
        Expect(m_end.WaitReady(), "a partner has not become ready");
        return process;
    }

    static void Talk(unsigned duration) {
        std::this_thread::sleep_for(milliseconds(duration));
    }

    void End(Process process) {
        Expect(!process->Find("failed"), "at the partner");
        const int losses = m_end.Losses();
        process->Kill();
        Expect(m_end.AwaitLoss(losses), "the loss of a partner");
        ++m_ended;
    }

    // The partners have ended.
    void BeAlone() {
        m_end.Forget();
        // GIO closes the pipes of a process that has ended on a thread of its own.
        Expect(Await([&] { return soak::OpenDescriptors().pipes == m_own_pipes; }),
               "the pipes of a partner are still open");
    }

    const std::string m_program;
    const long m_own_pipes = soak::OpenDescriptors().pipes;
    Random& m_random;
    ::End m_end;
    int m_ended = 0;
};

// ---- The bus comes and goes ----

struct Buses {
    int ended = 0;
    unsigned long messages = 0;
};

Buses RunBuses(std::unique_ptr<tevrol::PrivateBus> bus, steady_clock::duration duration,
               Random& random) {
    const auto until = steady_clock::now() + duration;
    Buses result;
    const End service(tevrol::Role::Service, kSenders / 2, random);
    const End client(tevrol::Role::Client, kSenders / 2, random);
    while (g_failures == 0 && steady_clock::now() < until) {
        Expect(client.WaitReady() && service.WaitReady(), "the bus is back, the partner is not");
        std::this_thread::sleep_for(milliseconds(Below(random, 200)));
        const int at_client = client.Losses();
        const int at_service = service.Losses();
        bus = nullptr;
        Expect(client.AwaitLoss(at_client) && service.AwaitLoss(at_service), "the loss of the bus");
        bus = std::make_unique<tevrol::PrivateBus>();
        ++result.ended;
    }
    result.messages = client.Messages();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (first == "partner" && argc == 3) {
        return RunPartner(static_cast<unsigned>(std::stoul(argv[2])));
    }
    if (argc < 2) {
        std::cerr << "usage: channel-soak SECONDS [SEED]" << std::endl;
        return 2;
    }
    const unsigned seed = soak::ChooseSeed(argc > 2 ? argv[2] : nullptr);
    mallopt(M_ARENA_MAX, 1);  // so that a new thread brings no arena of its own
    Random random(seed);
    auto bus = std::make_unique<tevrol::PrivateBus>();
    const milliseconds all(1000 * std::stol(first));
    unsigned long messages = 0;
    int partners = 0;
    {
        Partners run(std::filesystem::canonical("/proc/self/exe"), random);
        run.Run(all * 2 / 3);
        messages = run.Messages();
        partners = run.Ended();
    }
    const Buses buses = RunBuses(std::move(bus), all / 3, random);
    std::cout << "tevrol::Channel: " << messages + buses.messages << " messages, " << partners
              << " partners and " << buses.ended << " buses ended" << std::endl;
    std::cout << (g_failures == 0 ? "as expected" : "NOT as expected") << std::endl;
    return g_failures == 0 ? 0 : 1;
}
