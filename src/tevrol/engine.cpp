// SPDX-License-Identifier: MIT
#include "tevrol/engine.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <new>
#include <utility>

#include "tevrol/log.h"
#include "tevrol/names.h"

namespace tevrol {
namespace {

// How many messages a thread takes from the connections before it looks after what they brought.
constexpr int kMostAtOnce = 64;

// Connections that end within that: of the bus, of the link, of one that was offered.
constexpr std::size_t kMostEnded = 8;

constexpr std::chrono::milliseconds kPauseWithoutMemory{100};
constexpr const char* kNoMemory = "no memory";
constexpr const char* kUnreadable = "the reply cannot be read";

Deadline After(std::chrono::milliseconds timeout) {
    const auto now = Clock::now();
    // Longer than any process lives, and no overflow.
    constexpr std::chrono::hours kForever{24 * 365 * 100};
    return now + std::min<Clock::duration>(std::max(timeout, std::chrono::milliseconds::zero()),
                                           kForever);
}

struct NamedError {
    const char* name;
    Error error;
};

constexpr NamedError kErrors[] = {
    {kRefusedError, Error::Refused},
    {kTooLargeError, Error::TooLarge},
    {"org.freedesktop.DBus.Error.AccessDenied", Error::Refused},
    {"org.freedesktop.DBus.Error.InvalidArgs", Error::Refused},
    {"org.freedesktop.DBus.Error.UnknownInterface", Error::Refused},
    {"org.freedesktop.DBus.Error.UnknownMethod", Error::Refused},
    {"org.freedesktop.DBus.Error.UnknownObject", Error::Refused},
    {"org.freedesktop.DBus.Error.LimitsExceeded", Error::Full},
    {"org.freedesktop.DBus.Error.Disconnected", Error::PartnerLost},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", Error::PartnerLost},
    {"org.freedesktop.DBus.Error.NoReply", Error::PartnerLost},
    {"org.freedesktop.DBus.Error.ServiceUnknown", Error::PartnerLost},
};

Error ErrorNamed(const std::string& name) {
    const auto* const found =
        std::find_if(std::begin(kErrors), std::end(kErrors),
                     [&name](const NamedError& known) { return name == known.name; });
    return found == std::end(kErrors) ? Error::Failed : found->error;
}

// Of a reply, or of "Answered", which stands for one.
Reply ReplyOf(sd_bus_message* message) {
    if (sd_bus_message_is_signal(message, kLinkInterface, kAnswered) > 0) {
        const char* error = nullptr;
        const char* text = nullptr;
        if (sd_bus_message_read(message, "tss", nullptr, &error, &text) < 0) {
            return {Error::BadReply, {}, kUnreadable};
        }
        if (*error != '\0') {
            return {ErrorNamed(error), {}, text};
        }
        auto payload = ReadArray(message);
        return payload ? Reply{{}, std::move(*payload), {}}
                       : Reply{Error::BadReply, {}, kUnreadable};
    }
    if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
        const std::string text = error->message == nullptr ? error->name : error->message;
        return {ErrorNamed(error->name), {}, text};
    }
    if (auto payload = ReadPayload(message)) {
        return {{}, std::move(*payload), {}};
    }
    const char* signature = sd_bus_message_get_signature(message, 1);
    return {Error::BadReply, {}, std::string("a reply of type \"") + signature + "\""};
}

}  // namespace

// An answer that the application still owes.
class Answer::Call {
public:
    Call(std::weak_ptr<Engine> engine, std::uint64_t id) : m_engine(std::move(engine)), m_id(id) {}
    ~Call() {
        Fail("the request was not answered");
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    void Reply(const Bytes& payload) const {
        if (const auto engine = m_engine.lock()) {
            engine->AnswerWith(m_id, payload);
        }
    }
    void Fail(const char* text) const {
        if (const auto engine = m_engine.lock()) {
            engine->AnswerWithError(m_id, text);
        }
    }

private:
    const std::weak_ptr<Engine> m_engine;
    const std::uint64_t m_id;
};

Answer::Answer(std::shared_ptr<Call> call) : m_call(std::move(call)) {}

void Answer::operator()(const Bytes& reply) const {
    m_call->Reply(reply);
}

void Answer::Fail(const std::string& text) const {
    m_call->Fail(text.c_str());
}

Engine::Waiter::Waiter(std::list<Waiter*>& waiters)
    : m_waiters(waiters), m_place(waiters.insert(waiters.end(), this)) {}

Engine::Waiter::~Waiter() {
    m_waiters.erase(m_place);
}

Engine::Engine(std::string name, Role role, Handlers handlers, Options options)
    : m_name(std::move(name)),
      m_path(kPathPrefix + m_name),
      m_role(role),
      m_handlers(std::move(handlers)),
      m_options(std::move(options)),
      m_jitter(std::random_device()()) {}

void Engine::Start() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ended.reserve(kMostEnded);
    Connect();
    UpdateWaiting();
    // With the application's loop for the handlers, one is enough to read.
    const int workers = m_options.run ? 1 : 2;
    for (int i = 0; i < workers; ++i) {
        m_workers.emplace_back([this] { Work(); });
    }
}

void Engine::Close() {
    {
        Lock lock(m_mutex);
        if (m_server == std::this_thread::get_id()) {
            std::fputs("tevrol: a channel is destroyed by its own handler\n", stderr);
            std::abort();
        }
        m_closed = true;
        FinishAll(Error::Closed);
        m_ready = false;
        m_ready_changed.NotifyAll();
        m_all_sent.NotifyAll();
        m_poller.Stop();
        while (m_server != std::thread::id()) {
            m_serving_ended.Wait(lock);
        }
    }
    for (std::thread& worker : m_workers) {
        worker.join();
    }
    Lock lock(m_mutex);
    LeaveBus();
    m_ended.clear();
    m_calls.clear();
    while (!m_jobs.empty()) {
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        if (job.kind == Job::Kind::Done) {
            lock.unlock();
            Run(job);
            lock.lock();
        }
    }
}

// ---- Threads ----

// A worker: serves jobs where it may, or else waits to read.
void Engine::Work() {
    Lock lock(m_mutex);
    while (!m_closed) {
        if (MayServe()) {
            Serve(lock);
            continue;
        }
        Poller::Ready ready;
        if (!m_unread) {
            lock.unlock();
            ready = m_poller.WaitAsWorker();
            lock.lock();
        }
        if (!m_closed) {
            TakeWhatArrived(ready);
            if (!MayServe()) {
                HandOver(lock);
            }
        }
    }
}

void Engine::TakeWhatArrived(const Poller::Ready& ready) {
    if (m_anew_at && Clock::now() < *m_anew_at) {
        return;
    }
    try {
        if (m_anew_at) {
            StartAnew();
        }
        Read(ready);
    } catch (const std::bad_alloc&) {
        OnNoMemory();
    }
}

// Nobody knows what has been done. So nothing is kept but what the application has to hear.
void Engine::OnNoMemory() {
    LogError(m_name, "the connection is given up", kNoMemory);
    m_anew_at = Clock::now() + kPauseWithoutMemory;
    m_unread = false;
    m_poller.WakeAt(m_anew_at);
}

void Engine::StartAnew() {
    m_acting = false;
    m_actions.clear();
    LeaveBus();
    Do(m_handshake.Disconnected());
    if (m_ready) {
        OnPartnerLost(m_partner);
    }
    m_anew_at.reset();
    m_connect_at = Clock::now();
}

// Takes what has arrived. What is left after this has to be read without being told of it again.
void Engine::Read(const Poller::Ready& ready) {
    FireTimers();
    const bool bus = m_bus && (m_unread || ready.Has(m_bus->Fd()));
    const bool link = m_link && (m_unread || ready.Has(m_link->Fd()));
    const Wire* const former_link = m_link_in ? m_link.get() : nullptr;
    m_unread = bus || link;
    for (int taken = 0; m_unread && taken < kMostAtOnce; ++taken) {
        const bool from_bus = bus && ReadBus();
        const bool from_link = link && ReadLink();
        // With too much for the application already, no more than what writing brings along: what
        // is left is told of again when that changes.
        m_unread = (from_bus || from_link) && !HasTooManyJobs();
    }
    if (m_link_in && m_link.get() != former_link) {
        // sd-bus may have taken what comes first from it together with the end of its set-up.
        m_unread = true;
    }
    if (m_unread) {
        m_poller.Kick();
    }
    if (m_bus_out) {
        m_bus_out->Flush();
    }
    if (m_link_out) {
        m_link_out->Flush();
    }
    if (m_link && m_link->IsBroken()) {
        OnLinkBroken();
    }
    if (m_bus && m_bus->IsBroken()) {
        OnBusBroken();
    }
    m_ended.clear();
    UpdateWaiting();
}

bool Engine::ReadBus() {
    Wire* const bus = m_bus.get();
    if (bus == nullptr) {
        return false;
    }
    const bool any = bus->Process();
    if (bus == m_bus.get() && !m_bus_ready && bus->IsReady()) {
        OnBusReady();
    }
    return any;
}

// Before the partner has ended what it sends by the bus, the link is set up, but not read.
bool Engine::ReadLink() {
    if (!m_link || (!m_link_in && m_link->IsReady())) {
        return false;
    }
    const bool any = m_link->Process();
    if (m_link) {
        AcceptLink();
    }
    return any;
}

// Tells the poller what to wait for from now on.
void Engine::UpdateWaiting() {
    if (m_flushing > 0 && IsAllSent()) {
        m_all_sent.NotifyAll();
    }
    if (m_anew_at) {
        m_poller.WakeAt(m_anew_at);
        return;
    }
    std::optional<Deadline> next = m_connect_at;
    const auto wake_at = [&next](std::optional<Deadline> deadline) {
        if (deadline && (!next || *deadline < *next)) {
            next = deadline;
        }
    };
    const bool paused = HasTooManyJobs();
    for (Wire* const wire : {m_bus.get(), m_link.get()}) {
        if (wire == nullptr) {
            continue;
        }
        if (wire->IsBroken()) {
            wake_at(Clock::now());
            continue;
        }
        if (const auto former = wire->FormerFd()) {
            m_poller.Forget(*former);
        }
        short events = wire->Events();
        const bool unread = wire == m_link.get() && !m_link_in && wire->IsReady();
        if (paused || unread) {
            events = static_cast<short>(events & ~POLLIN);
        }
        if (!m_poller.Watch(wire->Fd(), events)) {
            LogError(m_name, "a connection cannot be waited for");
            wire->Break();
            wake_at(Clock::now());
        }
        wake_at(wire->Timeout());
    }
    wake_at(m_handshake_timer);
    if (!m_deadlines.empty()) {
        wake_at(m_deadlines.begin()->first);
    }
    m_poller.WakeAt(next);
}

// The same after a message was pushed: it has mostly been written at once, and nothing changes.
void Engine::UpdateWriting(const Wire& wire) {
    if (wire.IsBroken() || !wire.IsWritten()) {
        UpdateWaiting();
    }
}

void Engine::FireTimers() {
    const Deadline now = Clock::now();
    if (m_connect_at && *m_connect_at <= now) {
        m_connect_at.reset();
        Connect();
    }
    if (m_handshake_timer && *m_handshake_timer <= now) {
        m_handshake_timer.reset();
        Do(m_handshake.TimedOut());
    }
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
        GiveUp(m_deadlines.begin()->second, Error::TimedOut);
    }
}

// Waits for the outcome of this thread's request: reads for it, or lets another thread read.
void Engine::Wait(Lock& lock, Waiter& waiter, Deadline deadline) {
    waiter.serves = ServesHere();
    while (!waiter.done && Clock::now() < deadline) {
        if (waiter.serves && !m_jobs.empty()) {
            ServeOne(lock);
        } else if (m_reading) {
            waiter.idle = true;
            waiter.wake.WaitUntil(lock, deadline);
            waiter.idle = false;
        } else {
            m_reading = true;
            waiter.reads = true;
            lock.unlock();
            const auto ready = m_poller.WaitAsReader(deadline);
            lock.lock();
            waiter.reads = false;
            m_reading = false;
            if (!m_closed) {
                TakeWhatArrived(ready);
                HandOver(lock);
            }
        }
    }
    PassReadingOn();
}

// Another thread that waits reads from now on, where there is one.
void Engine::PassReadingOn() {
    if (m_reading) {
        return;
    }
    for (Waiter* const waiter : m_waiters) {
        if (waiter->idle) {
            waiter->wake.NotifyOne();
            return;
        }
    }
}

void Engine::Wake(Waiter& waiter) {
    if (waiter.reads) {
        m_poller.WakeReader();
    } else if (waiter.idle) {
        waiter.wake.NotifyOne();
    }
}

// Whether a thread that waits has to serve jobs, because nobody else can meanwhile.
bool Engine::ServesHere() const {
    const std::thread::id here = std::this_thread::get_id();
    return m_server == here || (m_server == std::thread::id() && m_loop_thread == here);
}

bool Engine::MayServe() const {
    return !m_options.run && m_server == std::thread::id() && !m_jobs.empty();
}

void Engine::Serve(Lock& lock) {
    m_server = std::this_thread::get_id();
    while (!m_jobs.empty() && !m_closed) {
        ServeOne(lock);
    }
    m_server = std::thread::id();
    m_serving_ended.NotifyAll();
}

// Runs the first job, while others may read.
void Engine::ServeOne(Lock& lock) {
    const bool paused = HasTooManyJobs();
    Job job = std::move(m_jobs.front());
    m_jobs.pop_front();
    m_jobs_size -= SizeOf(job);
    if (paused) {
        UpdateWaiting();
    }
    PassReadingOn();
    const std::thread::id server = std::exchange(m_server, std::this_thread::get_id());
    lock.unlock();
    Run(job);
    lock.lock();
    m_server = server;
}

// Not under the lock.
void Engine::Run(Job& job) {
    try {
        switch (job.kind) {
            case Job::Kind::Request:
                RunRequest(job);
                break;
            case Job::Kind::Notification:
                if (m_handlers.notification) {
                    m_handlers.notification(job.payload);
                }
                break;
            case Job::Kind::Ready:
                if (m_handlers.ready) {
                    m_handlers.ready(job.partner);
                }
                break;
            case Job::Kind::Lost:
                if (m_handlers.lost) {
                    m_handlers.lost(job.partner);
                }
                break;
            case Job::Kind::Done:
                job.done(std::move(job.reply));
                break;
        }
    } catch (const std::exception& failure) {
        LogError(m_name, "a handler failed", failure.what());
    } catch (...) {
        LogError(m_name, "a handler failed", "no std::exception");
    }
}

void Engine::RunRequest(Job& job) {
    std::shared_ptr<Answer::Call> call;
    try {
        call = std::make_shared<Answer::Call>(weak_from_this(), job.call);
        if (m_handlers.request_later) {
            m_handlers.request_later(job.payload, Answer(call));
        } else {
            call->Reply(m_handlers.request(job.payload));
        }
    } catch (const std::exception& failure) {
        AnswerWithError(job.call, failure.what());
    } catch (...) {
        AnswerWithError(job.call, "the handler failed");
    }
}

// Sees to it that somebody serves the jobs that this thread has read and does not serve itself.
void Engine::HandOver(Lock& lock) {
    if (m_jobs.empty() || m_closed) {
        return;
    }
    for (Waiter* const waiter : m_waiters) {
        if (waiter->serves) {
            Wake(*waiter);
        }
    }
    if (!m_options.run) {
        if (MayServe()) {
            m_poller.Kick();
        }
    } else if (!m_handed_over) {
        m_handed_over = true;
        lock.unlock();
        const bool taken = RunOnLoop();
        lock.lock();
        m_handed_over = m_handed_over && taken;
    }
}

bool Engine::RunOnLoop() {
    try {
        m_options.run([engine = weak_from_this()] {
            if (const auto alive = engine.lock()) {
                alive->Drain();
            }
        });
        return true;
    } catch (const std::exception& failure) {
        LogError(m_name, "Options::run failed", failure.what());
    } catch (...) {
        LogError(m_name, "Options::run failed", "no std::exception");
    }
    return false;
}

// On the application's loop.
void Engine::Drain() {
    Lock lock(m_mutex);
    m_handed_over = false;
    m_loop_thread = std::this_thread::get_id();
    // Somebody serves already: the handler that runs a loop of its own, or another thread.
    if (m_server == std::thread::id()) {
        Serve(lock);
    }
}

void Engine::AddJob(Job job) {
    m_jobs_size += SizeOf(job);
    m_jobs.push_back(std::move(job));
}

std::size_t Engine::SizeOf(const Job& job) {
    return sizeof job + job.payload.size() + job.reply.payload.size();
}

bool Engine::HasTooManyJobs() const {
    return m_jobs_size > m_options.queued;
}

// ---- Operations ----

Reply Engine::Request(const Bytes& payload, std::chrono::milliseconds timeout) {
    const Deadline deadline = After(timeout);
    Lock lock(m_mutex);
    if (const std::error_code error = WhyNotSend(payload.size())) {
        return {error, {}, {}};
    }
    Waiter waiter(m_waiters);
    const std::uint64_t id = Submit(payload, [this, &waiter](Reply reply) {
        waiter.reply = std::move(reply);
        waiter.done = true;
        Wake(waiter);
    });
    Wait(lock, waiter, deadline);
    if (!waiter.done) {
        GiveUp(id, Error::TimedOut);
    }
    return std::move(waiter.reply);
}

std::future<Reply> Engine::RequestLater(const Bytes& payload) {
    auto promise = std::make_shared<std::promise<Reply>>();
    std::future<Reply> future = promise->get_future();
    SubmitLater(payload, [promise](Reply reply) { promise->set_value(std::move(reply)); });
    return future;
}

void Engine::RequestLater(const Bytes& payload, std::function<void(Reply)> done) {
    SubmitLater(payload, [this, done = std::move(done)](Reply reply) {
        Job job{Job::Kind::Done};
        job.done = done;
        job.reply = std::move(reply);
        AddJob(std::move(job));
    });
}

void Engine::SubmitLater(const Bytes& payload, std::function<void(Reply)> finish) {
    Lock lock(m_mutex);
    std::error_code error = WhyNotSend(payload.size());
    if (!error && IsFull(payload.size())) {
        error = Error::Full;
    }
    if (error) {
        finish({error, {}, {}});
    } else {
        Submit(payload, std::move(finish), After(m_options.timeout));
        UpdateWaiting();
    }
    HandOver(lock);
}

std::error_code Engine::Notify(const Bytes& payload) {
    const Lock lock(m_mutex);
    if (const std::error_code error = WhyNotSend(payload.size())) {
        return error;
    }
    if (IsFull(payload.size())) {
        return Error::Full;
    }
    const Wire& wire = m_link_out ? *m_link : *m_bus;
    Outbox::Item item;
    item.message = wire.NewSignal(m_link_out ? nullptr : m_partner.c_str(), m_path.c_str(),
                                  kInterface, kSignal);
    if (!AppendPayload(item.message.get(), payload)) {
        return Error::Failed;
    }
    item.size = payload.size();
    Out().Push(std::move(item));
    UpdateWriting(wire);
    return {};
}

bool Engine::IsAllSent() const {
    return (!m_bus_out || m_bus_out->IsEmpty()) && (!m_link_out || m_link_out->IsEmpty());
}

bool Engine::Flush(std::chrono::milliseconds timeout) const {
    const Deadline deadline = After(timeout);
    Lock lock(m_mutex);
    ++m_flushing;
    while (!IsAllSent() && !m_closed && Clock::now() < deadline) {
        m_all_sent.WaitUntil(lock, deadline);
    }
    --m_flushing;
    return IsAllSent() && !m_closed;
}

bool Engine::IsReady() const {
    const Lock lock(m_mutex);
    return m_ready;
}

bool Engine::WaitReady(std::chrono::milliseconds timeout) const {
    const Deadline deadline = After(timeout);
    Lock lock(m_mutex);
    while (!m_ready && !m_closed && Clock::now() < deadline) {
        m_ready_changed.WaitUntil(lock, deadline);
    }
    return m_ready;
}

std::string Engine::Partner() const {
    const Lock lock(m_mutex);
    return m_ready ? m_partner : std::string();
}

std::optional<Credentials> Engine::PartnerCredentials() const {
    const Lock lock(m_mutex);
    return m_ready ? m_credentials : std::nullopt;
}

bool Engine::IsDirect() const {
    const Lock lock(m_mutex);
    return m_ready && m_link_out != nullptr && m_link_in;
}

// ---- Sending ----

std::error_code Engine::WhyNotSend(std::size_t size) const {
    if (m_closed) {
        return Error::Closed;
    }
    if (size > m_options.largest) {
        return Error::TooLarge;
    }
    if (!m_ready || m_anew_at) {
        return m_bus_ready ? Error::NotReady : Error::NoBus;
    }
    return {};
}

Outbox& Engine::Out() {
    return m_link_out ? *m_link_out : *m_bus_out;
}

bool Engine::IsFull(std::size_t size) const {
    // Since there is a link, nobody asks any more what the partner has taken from the bus.
    const std::size_t waiting =
        m_link_out ? m_bus_out->Unsent() + m_link_out->Waiting() : m_bus_out->Waiting();
    return waiting != 0 && waiting + size > m_options.queued;
}

std::uint64_t Engine::Submit(const Bytes& payload, std::function<void(Reply)> finish,
                             std::optional<Deadline> deadline) {
    const Wire& wire = m_link_out ? *m_link : *m_bus;
    const std::uint64_t id = ++m_last_id;
    Outbox::Item item;
    item.message =
        wire.NewCall(m_link_out ? nullptr : m_partner.c_str(), m_path.c_str(), kInterface, kMethod);
    if (!AppendPayload(item.message.get(), payload)) {
        finish({Error::Failed, {}, kNoMemory});
        return id;
    }
    item.size = payload.size();
    item.id = id;
    item.on_reply = [this, id](sd_bus_message* reply) { OnReply(id, reply); };
    try {
        Pending& pending = m_pending[id];
        if (deadline) {
            pending.deadline = m_deadlines.emplace(*deadline, id);
        }
        Out().Push(std::move(item));
        pending.finish = std::move(finish);
    } catch (const std::bad_alloc&) {
        Forget(id);
        throw;
    }
    UpdateWriting(wire);
    return id;
}

void Engine::OnReply(std::uint64_t id, sd_bus_message* reply) {
    if (m_pending.count(id) == 0) {
        return;
    }
    Reply read;
    try {
        read = ReplyOf(reply);
    } catch (const std::bad_alloc&) {
        read = {Error::Failed, {}, kNoMemory};
    }
    Finish(id, std::move(read));
}

void Engine::Finish(std::uint64_t id, Reply reply) {
    const auto found = m_pending.find(id);
    if (found != m_pending.end()) {
        // First: without the memory for it, the request still waits for its outcome.
        found->second.finish(std::move(reply));
        Forget(id);
    }
}

void Engine::Forget(std::uint64_t id) {
    const auto found = m_pending.find(id);
    if (found != m_pending.end()) {
        if (found->second.deadline) {
            m_deadlines.erase(*found->second.deadline);
        }
        m_pending.erase(found);
    }
}

void Engine::GiveUp(std::uint64_t id, Error error) {
    if (m_bus_out && !m_bus_out->Withdraw(id) && m_link_out) {
        m_link_out->Withdraw(id);
    }
    Finish(id, {error, {}, {}});
}

void Engine::FinishAll(Error error) {
    while (!m_pending.empty()) {
        GiveUp(m_pending.begin()->first, error);
    }
}

// ---- Answering ----

void Engine::AnswerWith(std::uint64_t id, const Bytes& payload) {
    const Lock lock(m_mutex);
    if (payload.size() > m_options.largest) {
        SendAnswer(id, nullptr, kTooLargeError, "the reply is too large");
    } else {
        SendAnswer(id, &payload, "", "");
    }
}

void Engine::AnswerWithError(std::uint64_t id, const char* text) {
    const Lock lock(m_mutex);
    SendAnswer(id, nullptr, kFailedError, text);
}

void Engine::SendAnswer(std::uint64_t id, const Bytes* payload, const char* error,
                        const char* text) {
    const auto found = m_calls.find(id);
    if (found == m_calls.end()) {
        return;  // answered, or the requester is lost
    }
    const IncomingCall call = std::move(found->second);
    m_calls.erase(found);
    try {
        if (call.by_bus && m_link_out) {
            AnswerByLink(call, payload, error, text);
        } else {
            AnswerTheSameWay(call, payload, error, text);
        }
    } catch (const std::bad_alloc&) {
        OnNoMemory();  // the requester would wait for an answer that is lost
    }
}

void Engine::AnswerTheSameWay(const IncomingCall& call, const Bytes* payload, const char* error,
                              const char* text) {
    Outbox* const out = call.by_bus ? m_bus_out.get() : m_link_out.get();
    Outbox::Item item;
    item.message = payload != nullptr ? NewReturn(call.message.get(), *payload)
                                      : NewError(call.message.get(), error, text);
    item.size = payload != nullptr ? payload->size() : 0;
    if (out != nullptr) {
        out->Push(std::move(item));
        UpdateWriting(call.by_bus ? *m_bus : *m_link);
    } else if (call.by_bus && m_bus) {
        // The requester is bound, and not watched yet. Nothing has been sent to it before.
        m_bus->Send(item.message.get());
        UpdateWriting(*m_bus);
    }
}

}  // namespace tevrol
