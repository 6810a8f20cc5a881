// SPDX-License-Identifier: MIT
#include "tests/conformance/failure-checks.h"

#include <algorithm>
#include <map>
#include <utility>

#include "platform/dlog.h"
#include "tests/conformance/scenarios.h"

namespace {

using Channel = TevrolDbusRemote;

constexpr const char* kLastPartner = ":1.9";

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
        {"Send", "Error while sending message [24] failed on purpose\n\n"},
        {"SendSignal", "Error while sending signal [24] failed on purpose\n\n"},
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

bool Failed(const std::vector<Event>& events, const std::string& function) {
    return std::any_of(events.begin(), events.end(), [&](const Event& event) {
        return event.failed && event.function == function;
    });
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

// What is owed is resent, and the partner leaves.
void ComeToRest(ChannelLife& life) {
    const Channel& channel = *life.channel;
    if (!life.world.Threads().empty()) {
        life.world.RunThread(life.world.Threads().begin()->first);
        EXPECT_EQ(channel.m_resendHandshake.size(), 0U);
        EXPECT_EQ(channel.m_timerThread, 0U);
    }
    LosePartner(life);
}

}  // namespace

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

std::size_t Replies(const std::vector<Event>& events) {
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [](const Event& event) {
            return !event.failed && event.function == "g_dbus_proxy_call_sync";
        }));
}

void CheckState(const ChannelLife& life) {
    EXPECT_FALSE(life.world.Locked());
    EXPECT_EQ(life.world.Misuses(), std::vector<std::string>());
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
        return;  // what is owed waits for the thread of a later failure, or for ever
    }
    if (channel.m_handshake > Channel::CONNECTION_HANDSHAKE_SYN) {
        EXPECT_EQ(channel.m_resendHandshake.size(), 0U);
    }
    for (const auto& [partner, suffix] : channel.m_resendHandshake) {
        EXPECT_EQ(partner, channel.m_partner_dbus_name);
        EXPECT_TRUE(suffix == "_SYN_ACK" || suffix == "_ACK") << suffix;
    }
}

bool RecordsNoThread(const ChannelLife& life) {
    return life.world.IsOfNoThread(life.channel->m_timerThread);
}

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

std::string Recover(ChannelLife& life, const std::vector<Event>& events) {
    ComeToRest(life);
    std::string reason = WhyNoPartner(life);
    if (reason.empty()) {
        FindPartner(life);
    } else {
        CheckReason(life, events);
    }
    return reason;
}

void CheckNothingElseIsHeld(const StubWorld& world, std::size_t requests) {
    EXPECT_LE(world.CountHeld("registration"), 1U);
    EXPECT_LE(world.CountHeld("subscription"), 3U);
    EXPECT_EQ(world.CountHeld("reply"), requests);
    EXPECT_EQ(world.Held().size(),
              world.CountHeld("registration") + world.CountHeld("subscription") + requests);
}
