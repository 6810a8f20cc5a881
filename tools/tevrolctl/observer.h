// Makes events of the bus's messages: who announces what, who is bound to whom as far as can be
// told from outside, which reply belongs to which request.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "tools/tevrolctl/event.h"
#include "tools/tevrolctl/names.h"

namespace tevrolctl {

class Observer {
public:
    explicit Observer(std::function<void(const Event&)> report) : m_report(std::move(report)) {}

    // Takes the next message that passed the bus at `time`, microseconds since the epoch.
    void Take(GDBusMessage* message, gint64 time);

private:
    // A process that takes part in a channel.
    struct Member {
        std::string role;
        std::string partner;  // whom it has bound
        bool ready = false;
        gint64 syn_time = 0;
    };
    using Members = std::map<std::string, Member>;  // by unique name
    using Call = std::pair<std::string, guint32>;   // who called, and the serial

    void TakeOwnerChange(GDBusMessage* message, gint64 time);
    void TakeVanished(const std::string& process, gint64 time);
    void TakeCall(GDBusMessage* message, gint64 time);
    void TakeReply(GDBusMessage* message, gint64 time);
    void TakeNotification(GDBusMessage* message, gint64 time);
    void TakeAnnouncement(const Event& announced);
    void Bind(const Event& announced, const std::string& partner);
    void CompleteIfBound(const Event& announced);
    std::string Peer(const std::string& channel, const std::string& role);
    Event Incoming(GDBusMessage* message, const char* kind, gint64 time);

    const std::function<void(const Event&)> m_report;
    std::map<std::string, Members> m_channels;
    // The last process of a role that made an announcement, by channel, role and stage.
    std::map<std::string, std::string> m_last_announcer;
    std::map<std::string, gint64> m_owned_since;  // by bus name
    std::map<Call, Event> m_requests;             // unanswered
    std::map<Call, Announcement> m_name_requests;
};

}  // namespace tevrolctl
