// SPDX-License-Identifier: MIT
// Turns the bus's messages into events: who announces what, who is bound to whom as far as an
// observer can tell, which reply belongs to which request.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "programs/common/names.h"
#include "programs/tevrolctl/bus/event.h"

namespace programs {

class Observer {
public:
    explicit Observer(std::function<void(const Event&)> report) : m_report(std::move(report)) {}

    // Takes the next message that passed the bus at `time`, microseconds since the epoch. Returns
    // the channel that it is about; empty when it is about none.
    std::string Take(GDBusMessage* message, gint64 time);
    // Takes what is known of somebody who was there before the first message.
    void TakePresent(const Event& present);
    // Reports who is bound and not ready for a while.
    void LookForWaiting(gint64 now);
    // How many unanswered requests were forgotten, because there were too many.
    std::size_t Forgotten() const {
        return m_forgotten;
    }

private:
    // A process that takes part in a channel.
    struct Member {
        std::string role;
        std::string partner;  // whom it has bound
        bool ready = false;
        gint64 syn_time = 0;
        int syns = 0;  // in a row
        gint64 bound_since = 0;
        bool present = false;  // was there before the monitor
        bool waits = false;    // which was reported
        bool direct = false;   // has a link beside the bus
    };
    using Members = std::map<std::string, Member>;  // by unique name
    using Call = std::pair<std::string, guint32>;   // who called, and the serial

    std::string TakeOwnerChange(GDBusMessage* message, gint64 time);
    void TakeNameChange(const Announcement& name, const std::string& old_owner,
                        const std::string& new_owner, gint64 time);
    void TakeRoleChange(const Announcement& name, const std::string& old_owner,
                        const std::string& new_owner, gint64 time);
    std::string TakeVanished(const std::string& process, gint64 time);
    void Forget(const std::string& process);
    std::string TakeCall(GDBusMessage* message, gint64 time);
    std::string TakeReply(GDBusMessage* message, gint64 time);
    std::string TakeRequestReply(const Event& request, GDBusMessage* message, gint64 time);
    std::string TakeNameReply(const Call& call, const Announcement& name, GDBusMessage* message,
                              gint64 time);
    std::string TakeLinkReply(Event opened, GDBusMessage* message, gint64 time);
    std::string TakeNotification(GDBusMessage* message, gint64 time);
    void TakeAnnouncement(const Event& announced);
    void Bind(const Event& announced, const std::string& partner);
    void CompleteIfBound(const Event& announced);
    std::string Peer(const std::string& channel, const std::string& process,
                     const std::string& role);
    Event Incoming(GDBusMessage* message, Event::Kind kind, gint64 time);
    void LearnFrom(const Event& message);
    bool HasRoom();
    std::string LastAnnouncer(const std::string& channel, const std::string& role,
                              const std::string& stage) const;

    const std::function<void(const Event&)> m_report;
    std::map<std::string, Members> m_channels;
    // The last process of a role that made an announcement, by its name.
    std::map<std::string, std::string> m_last_announcer;
    std::map<std::string, gint64> m_owned_since;  // by bus name
    // Unanswered calls. Payloads are not kept.
    std::map<Call, Event> m_requests;
    std::map<Call, Event> m_link_requests;
    std::map<Call, Announcement> m_name_requests;
    std::size_t m_forgotten = 0;
};

}  // namespace programs
