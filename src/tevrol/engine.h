// SPDX-License-Identifier: MIT
// What runs a channel: its connections, its handshake, its threads.
//
// One lock, m_mutex, guards everything. It is never held while a thread waits or while code of the
// application runs. Any thread that has something to wait for may read from the connections, one at
// a time (poller.h): the one that waits for a reply reads it itself. What is for the application
// becomes a job in m_jobs; one thread at a time serves the jobs, in order:
//   - a worker, of which there are two, so that one reads while the other is in a handler;
//   - or the application's loop, where Options::run is given;
//   - or a handler that waits for a reply, before it goes on.
#pragma once

#include <deque>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tevrol/channel.h"
#include "tevrol/condition.h"
#include "tevrol/handshake.h"
#include "tevrol/outbox.h"
#include "tevrol/poller.h"
#include "tevrol/wire.h"

namespace tevrol {

class Engine : public std::enable_shared_from_this<Engine>, public Wire::Receiver {
public:
    Engine(std::string name, Role role, Handlers handlers, Options options);

    void Start();
    void Close();

    // As the operations of Channel.
    Reply Request(const Bytes& payload) {
        return Request(payload, m_options.timeout);
    }
    Reply Request(const Bytes& payload, std::chrono::milliseconds timeout);
    std::future<Reply> RequestLater(const Bytes& payload);
    void RequestLater(const Bytes& payload, std::function<void(Reply)> done);
    std::error_code Notify(const Bytes& payload);
    bool Flush(std::chrono::milliseconds timeout) const;
    bool IsReady() const;
    bool WaitReady(std::chrono::milliseconds timeout) const;
    std::string Partner() const;
    std::optional<Credentials> PartnerCredentials() const;
    bool IsDirect() const;

    // Answers the incoming request `id`, if that is still wanted: with a payload, or with
    // Error::Failed.
    void AnswerWith(std::uint64_t id, const Bytes& payload);
    void AnswerWithError(std::uint64_t id, const char* text);

private:
    using Lock = std::unique_lock<std::mutex>;

    // A thread that waits for the outcome of its request. Enlisted while it exists, under the lock.
    struct Waiter {
        explicit Waiter(std::list<Waiter*>& waiters);
        ~Waiter();
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

        Condition wake;
        bool done = false;
        bool serves = false;  // runs jobs while it waits
        bool reads = false;   // waits for the descriptors
        bool idle = false;    // sleeps, as another thread reads
        Reply reply;

    private:
        std::list<Waiter*>& m_waiters;
        std::list<Waiter*>::iterator m_place;
    };
    // A request whose outcome has not come. `finish` runs under the lock.
    struct Pending {
        std::function<void(Reply)> finish;
        std::optional<std::multimap<Deadline, std::uint64_t>::iterator> deadline;
    };
    // Something for the application.
    struct Job {
        enum class Kind { Request, Notification, Ready, Lost, Done };
        Kind kind;
        Bytes payload = {};
        std::string partner = {};
        std::uint64_t call = 0;                // Request
        std::function<void(Reply)> done = {};  // Done
        Reply reply = {};
    };
    // A request of the partner's that has not been answered.
    struct IncomingCall {
        Message message;
        bool by_bus = false;
    };

    // ---- Threads: engine.cpp ----
    void Work();
    void TakeWhatArrived(const Poller::Ready& ready);
    void OnNoMemory() override;
    void StartAnew();
    void Read(const Poller::Ready& ready);
    bool ReadBus();
    bool ReadLink();
    bool IsAllSent() const;
    void UpdateWaiting();
    void UpdateWriting(const Wire& wire);
    void FireTimers();
    void Wait(Lock& lock, Waiter& waiter, Deadline deadline);
    void PassReadingOn();
    void Wake(Waiter& waiter);
    bool ServesHere() const;
    bool MayServe() const;
    void Serve(Lock& lock);
    void ServeOne(Lock& lock);
    void Run(Job& job);
    void RunRequest(Job& job);
    void HandOver(Lock& lock);
    bool RunOnLoop();
    void Drain();
    void AddJob(Job job);
    static std::size_t SizeOf(const Job& job);
    bool HasTooManyJobs() const;

    // ---- Sending and answering: engine.cpp ----
    std::error_code WhyNotSend(std::size_t size) const;
    bool IsFull(std::size_t size) const;
    std::uint64_t Submit(const Bytes& payload, std::function<void(Reply)> finish,
                         std::optional<Deadline> deadline = std::nullopt);
    void SubmitLater(const Bytes& payload, std::function<void(Reply)> finish);
    void Finish(std::uint64_t id, Reply reply);
    void Forget(std::uint64_t id);
    void GiveUp(std::uint64_t id, Error error);
    void FinishAll(Error error);
    void OnReply(std::uint64_t id, sd_bus_message* reply);
    void SendAnswer(std::uint64_t id, const Bytes* payload, const char* error, const char* text);
    void AnswerTheSameWay(const IncomingCall& call, const Bytes* payload, const char* error,
                          const char* text);
    void AnswerByLink(const IncomingCall& call, const Bytes* payload, const char* error,
                      const char* text);
    Outbox& Out();

    // ---- The bus and the partner: session.cpp ----
    void Connect();
    void OnBusReady();
    void OnListening(sd_bus_message* reply);
    void RequestActiveName();
    void OnActiveName(sd_bus_message* reply);
    void LeaveBus();
    void OnBusBroken();
    void OnConnectFailed(const std::string& why);
    void Rejoin();
    Message NewDriverCall(const char* method) const;
    std::string NameOf(Role role, Stage stage) const;

    void Do(const Actions& actions);
    void Act(const Action& action);
    void Announce(Stage stage);
    void Release(Stage stage, const std::string& name);
    void Watch(const std::string& peer);
    void AskWhoIs(const std::string& peer);
    void Unwatch(const std::string& peer);
    void SetHandshakeTimer(unsigned attempt);
    void OnPartnerReady(const std::string& partner);
    void OnPartnerLost(const std::string& partner);

    void OnRequest(Wire& wire, Message call) override;
    void OnOpen(Wire& wire, Message call) override;
    void OnSignal(Wire& wire, sd_bus_message* signal) override;
    void OnNotification(Wire& wire, sd_bus_message* signal);
    void OnDriverSignal(sd_bus_message* signal);
    void OnOwnerChange(sd_bus_message* signal);
    bool IsFromPartner(const Wire& wire, sd_bus_message* message) const;
    static void Refuse(Wire& wire, sd_bus_message* call, const char* error, const char* text);

    // ---- The direct link: session.cpp ----
    void OfferLink();
    void OnOfferAnswered(sd_bus_message* reply);
    void AcceptLink();
    void SendByLink();
    std::unique_ptr<Wire> NewLink(Descriptor socket, Wire::Side side);
    void OnLinkSignal(Wire& wire, sd_bus_message* signal);
    void OnAnswered(sd_bus_message* signal);
    void DropLink();
    void OnLinkBroken();
    void ReadLinkToItsEnd();

    // Constant.
    const std::string m_name;
    const std::string m_path;
    const Role m_role;
    const Handlers m_handlers;
    const Options m_options;

    mutable std::mutex m_mutex;  // guards all below

    Poller m_poller;
    std::vector<std::thread> m_workers;
    bool m_reading = false;             // a thread waits for the descriptors, as reader
    bool m_unread = false;              // more has arrived than was read
    std::optional<Deadline> m_anew_at;  // memory ran out: the connections are given up then
    std::list<Waiter*> m_waiters;
    mutable Condition m_ready_changed;
    mutable int m_flushing = 0;    // threads that wait for the next
    mutable Condition m_all_sent;  // or nothing of it can be sent any more
    mutable Condition m_serving_ended;

    std::deque<Job> m_jobs;
    std::size_t m_jobs_size = 0;
    std::thread::id m_server;       // who serves jobs; nobody: the default
    std::thread::id m_loop_thread;  // who did so last for Options::run
    bool m_handed_over = false;     // the application's loop will serve
    bool m_closed = false;

    std::uint64_t m_last_id = 0;
    std::unordered_map<std::uint64_t, Pending> m_pending;
    std::multimap<Deadline, std::uint64_t> m_deadlines;  // of those that no thread waits for
    std::unordered_map<std::uint64_t, IncomingCall> m_calls;
    std::vector<std::unique_ptr<Wire>> m_ended;  // destroyed when nothing of them is on the stack

    // The bus.
    std::unique_ptr<Wire> m_bus;
    bool m_bus_ready = false;
    std::string m_unique_name;  // while m_bus_ready
    int m_listening = 0;        // names of the other role that the bus has agreed to report
    unsigned m_failed_connects = 0;
    std::optional<Deadline> m_connect_at;

    // The handshake and who it is with.
    Handshake m_handshake;
    std::deque<Action> m_actions;
    bool m_acting = false;
    std::optional<Deadline> m_handshake_timer;
    std::minstd_rand m_jitter;
    unsigned m_watch = 0;  // counts what was watched
    bool m_ready = false;
    std::string m_partner;  // while ready
    std::optional<Credentials> m_credentials;
    std::unique_ptr<Outbox> m_bus_out;  // while the partner is watched, ready or not

    // The direct link. What is sent goes over it as soon as it exists; what comes is taken from it
    // as soon as all that the partner sent by the bus has been.
    std::unique_ptr<Wire> m_offered;  // to the partner, which has not answered
    Message m_open;                   // the partner's offer, while the link is set up
    std::unique_ptr<Wire> m_link;
    std::unique_ptr<Outbox> m_link_out;
    bool m_link_in = false;
    unsigned m_links = 0;  // counts offers and ends
};

}  // namespace tevrol
