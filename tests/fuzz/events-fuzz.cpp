// SPDX-License-Identifier: MIT
// Any sequence of what the bus, the application and the resend thread can do to a channel. After
// each event, what must always hold is looked at.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "ipc/tevrol-dbus-remote.h"
#include "tests/fuzz/chosen-world.h"

namespace {

using C = TevrolDbusRemote;

constexpr const char* kPath = "/org/ulmar/tevrol/CommunicationChannel/demo";
constexpr const char* kInterface = "org.ulmar.tevrol.DbusCommunication";

// Answers with the request, and keeps what its handlers are told.
class Channel : public TevrolDbusRemote {
public:
    Channel() : TevrolDbusRemote("demo") {}

    std::vector<char> HandleMessage(std::vector<char>& data) override {
        requests.push_back(data);
        return data;
    }
    void HandleNotification(std::vector<char>& data) override {
        notifications.push_back(data);
    }
    void HandleConnectionReady(bool state, const std::string& partner) override {
        Require(!m_mutex.TryLock(), "readiness is told under the lock");
        Require(!state || IsConnectionReady(), "whoever is told is ready");
        told = {state, partner};
    }

    std::vector<std::vector<char>> requests;
    std::vector<std::vector<char>> notifications;
    std::pair<bool, std::string> told;
};

class Run {
public:
    explicit Run(Choices& choices) : m_choices(choices), m_world(choices) {
        m_world.stub.on_sleep = [this](int) { WhileTheThreadSleeps(); };
        m_channel = std::make_unique<Channel>();
        Check();
    }

    ~Run() {
        m_channel.reset();
        Require(!m_world.HasThread(), "the resend thread is gone with the object");
        Require(m_world.stub.Watched().empty(), "the watch is gone with the object");
        Require(m_world.stub.Subscribed().size() == (m_world.connected ? 3 : 0),
                "the three subscriptions to the partner's names stay, and no other");
        for (const std::string& held : m_world.stub.Held()) {
            Require(IsOneOf(held, {"registration", "subscription", "reply"}),
                    "nothing else is left over");
        }
        RequireNoMisuse();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void Everything() {
        while (m_choices.AreLeft()) {
            Step();
        }
    }

private:
    // Until the thread wakes up; at the end of the choices it does, and its announcements succeed.
    void WhileTheThreadSleeps() {
        while (m_choices.AreLeft() && !m_choices.OneIn(4)) {
            Step();
        }
    }

    void Step() {
        if (!m_world.connected) {
            UseChannel();  // nothing else reaches it
        } else {
            switch (m_choices.Below(8)) {
                case 0:
                case 1:
                case 2:
                    ChangeOwner();
                    break;
                case 3:
                    LosePartner();
                    break;
                case 4:
                    RunThread();
                    break;
                case 5:
                    Request();
                    break;
                case 6:
                    Notify();
                    break;
                default:
                    UseChannel();
            }
        }
        Check();
    }

    GDBusConnection* Connection() {
        return m_choices.OneIn(16) ? nullptr : StubWorld::Connection();
    }
    Channel* UserData() {
        return m_choices.OneIn(16) ? nullptr : m_channel.get();
    }

    // A unique name mostly.
    std::string Owner() {
        switch (m_choices.Below(8)) {
            case 0:
                return ChosenWorld::kOwnName;
            case 1:
            case 2:
            case 3:
                return ":1.1";
            case 4:
            case 5:
                return ":1.2";
            case 6:
                return "";
            default:
                return m_choices.Text();
        }
    }

    const char* Path() {
        return m_choices.OneIn(8) ? "/org/ulmar/tevrol/CommunicationChannel/other" : kPath;
    }

    void ChangeOwner() {
        using Callback = void (*)(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                  const gchar*, GVariant*, gpointer);
        struct Name {
            Callback callback;
            const char* name;
        };
        static const Name names[] = {
            {C::cb_SynNameOwnerChanged, "org.ulmar.Tevrol.demo_SERVICE_SYN"},
            {C::cb_SynAckNameOwnerChanged, "org.ulmar.Tevrol.demo_SERVICE_SYN_ACK"},
            {C::cb_AckNameOwnerChanged, "org.ulmar.Tevrol.demo_SERVICE_ACK"}};
        const Name& changed = names[m_choices.Below(3)];
        GVariant* body =
            g_variant_ref_sink(m_choices.OneIn(8) ? AnyBody(m_choices) : OwnerChange(changed.name));
        m_nobody_released = m_nobody_released || IsOfNobody(body);
        GDBusConnection* connection = Connection();
        changed.callback(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "NameOwnerChanged", body, UserData());
        g_variant_unref(body);
    }

    // Mostly a release.
    GVariant* OwnerChange(const char* name) {
        const std::string old_owner = Owner();
        const std::string new_owner = m_choices.OneIn(4) ? Owner() : "";
        return g_variant_new("(sss)", name, old_owner.c_str(), new_owner.c_str());
    }

    // The bus releases what somebody owned, and names its owners by names.
    static bool IsOfNobody(GVariant* body) {
        if (g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)")) == FALSE) {
            return false;
        }
        const gchar* old_owner = nullptr;
        g_variant_get_child(body, 1, "&s", &old_owner);
        return g_dbus_is_name(old_owner) == FALSE;
    }

    void LosePartner() {
        const std::string name = Owner();
        GDBusConnection* connection = Connection();
        C::cb_PartnerNameVanished(connection, name.c_str(), UserData());
    }

    void RunThread() {
        if (m_world.HasThread() && !m_world.ThreadRuns()) {
            m_world.RunThread();
            return;
        }
        const guint8 remaining = C::OnResendHandshake(m_channel.get());
        Require(remaining == (m_channel->m_resendHandshake.empty() ? 0 : 1),
                "a pass tells whether anything remains");
        Require(m_channel->m_resendHandshake.size() <= 1, "a pass leaves one entry at most");
        for (const auto& [partner, suffix] : m_channel->m_resendHandshake) {
            Require(partner == m_channel->m_partner_dbus_name,
                    "a pass leaves the bound partner's entry alone");
        }
    }

    // GIO refuses bodies of another type, and everything where nothing is registered.
    void Request() {
        if (!m_world.registered) {
            return;
        }
        GVariant* body = g_variant_ref_sink(AnyPayload(m_choices));
        GDBusConnection* connection = Connection();
        Channel* user_data = UserData();
        const char* path = Path();
        C::cb_MethodCall(connection, ":1.1", path, kInterface, "Send", body,
                         StubWorld::Invocation(), user_data);
        const bool taken = connection != nullptr && user_data != nullptr && path == kPath;
        RequireTaken(m_channel->requests, taken ? std::optional(BytesOf(body)) : std::nullopt);
        RequireTaken(m_world.answers, taken ? std::optional(BytesOf(body)) : std::nullopt);
        g_variant_unref(body);
    }

    void Notify() {
        GVariant* body = g_variant_ref_sink(AnyBody(m_choices));
        GDBusConnection* connection = Connection();
        Channel* user_data = UserData();
        const char* path = Path();
        C::cb_SignalCall(connection, ":1.1", path, kInterface, "SendSignal", body, user_data);
        const bool taken = connection != nullptr && user_data != nullptr && path == kPath &&
                           g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)")) != FALSE;
        RequireTaken(m_channel->notifications, taken ? std::optional(BytesOf(body)) : std::nullopt);
        g_variant_unref(body);
    }

    void UseChannel() {
        std::vector<char> data = m_choices.Bytes();
        const bool ready = m_channel->IsConnectionReady();
        if (m_choices.OneIn(2)) {
            const std::vector<char> reply = m_channel->SendMessage(data);
            const bool sent = ready && m_channel->m_proxy != nullptr;
            RequireTaken(m_world.requests, sent ? std::optional(data) : std::nullopt);
            Require(reply == (sent ? m_world.reply : std::vector<char>()),
                    "the reply is the partner's, or empty");
            return;
        }
        const std::string partner = Owner();
        m_channel->SendNotification(data, partner);
        const bool sent =
            ready && m_channel->m_signal_id != 0 && partner == m_channel->m_partner_dbus_name;
        RequireTaken(m_world.notifications, sent ? std::optional(data) : std::nullopt);
        Require(!sent || m_world.notified == partner, "a notification goes to the partner");
    }

    static void RequireTaken(std::vector<std::vector<char>>& taken,
                             const std::optional<std::vector<char>>& expected) {
        Require(taken == (expected ? std::vector<std::vector<char>>{*expected}
                                   : std::vector<std::vector<char>>()),
                "a payload passes once, whole, or not at all");
        taken.clear();
    }

    static bool IsOneOf(const std::string& held, const std::vector<std::string>& kinds) {
        return std::find(kinds.begin(), kinds.end(), held.substr(0, held.find('#'))) != kinds.end();
    }

    void RequireNoMisuse() const {
        const auto& misuses = m_world.stub.Misuses();
        Require(misuses.empty(), misuses.empty() ? "" : misuses.front().c_str());
    }

    void Check() {
        RequireNoMisuse();
        Require(m_channel->m_mutex.TryLock(), "the lock is free between events");
        m_channel->m_mutex.Unlock();
        CheckBinding();
        Require(!m_channel->IsConnectionReady() || m_channel->told.first,
                "who is ready was told, and no loss since");
        Require(m_nobody_released || !m_channel->IsConnectionReady() || IsBound(),
                "nobody is ready without a partner");
        const pthread_t thread = m_channel->m_timerThread;
        Require(m_world.stub.IsOfNoThread(thread) || (thread != 0) == m_world.HasThread(),
                "a thread is recorded as long as there is one");
        for (const auto& [partner, suffix] : m_channel->m_resendHandshake) {
            Require(suffix == "_SYN_ACK" || suffix == "_ACK", "what is owed is an answer");
        }
    }

    bool IsBound() const {
        return m_channel->m_proxy_watch != 0;
    }

    void CheckBinding() const {
        const std::string& partner = m_channel->m_partner_dbus_name;
        Require(m_channel->m_owner_id == 0, "no name is owned");
        Require((m_channel->m_signal_id != 0) == IsBound(), "watch and subscription go together");
        const std::size_t proxies = m_channel->m_proxy == nullptr ? 0 : 1;
        Require(m_world.stub.CountHeld("proxy") == proxies, "no proxy is left over");
        Require(proxies == 0 || m_world.stub.Holds(m_channel->m_proxy),
                "the proxy held is the one there is");
        Require(m_channel->m_proxy == nullptr || IsBound(), "a proxy belongs to a partner");
        Require(m_world.stub.Watched().size() == (IsBound() ? 1 : 0), "no watch is left over");
        Require(m_world.held_name.empty(), "every name is released");
        if (IsBound()) {
            Require(partner != ChosenWorld::kOwnName, "nobody pairs with itself");
            Require(m_world.stub.Watched().at(m_channel->m_proxy_watch) == partner,
                    "the partner is the one watched");
            Require(m_world.stub.Subscribed().at(m_channel->m_signal_id) == partner,
                    "the partner is the one heard");
        }
        const std::size_t names = !m_world.connected ? 0 : 3;
        Require(m_world.stub.Subscribed().size() == names + (IsBound() ? 1 : 0),
                "no subscription is left over");
    }

    Choices& m_choices;
    ChosenWorld m_world;
    std::unique_ptr<Channel> m_channel;
    bool m_nobody_released = false;
};

void KeepOutputQuiet() {
    static const bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
    Require(quiet, "standard output can be put away");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KeepOutputQuiet();
    Choices choices(data, size);
    Run(choices).Everything();
    return 0;
}
