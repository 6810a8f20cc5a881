// SPDX-License-Identifier: MIT
// The service end of the channel "demo", correct but for the habits that a test gives it. It lives
// in the main loop of the test, on a connection of its own.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "devkit/payload.h"
#include "tests/programs/peer.h"

class OddService : public Peer {
public:
    // A message to it.
    struct Incoming {
        std::string sender;
        std::string member;
        std::string type;
        tevrol::Bytes payload;  // of type "ay" only
    };
    enum class Reply { Correct, Error, None, Text, OtherBytes };

    OddService();
    ~OddService();
    OddService(const OddService&) = delete;
    OddService& operator=(const OddService&) = delete;

    // ---- Habits: each is asked first; nothing, or false, means the correct way ----
    // A client name of the stage "SYN", "SYN_ACK" or "ACK" was released by `client`. True: that is
    // all the service does about it.
    std::function<bool(const std::string& stage, const std::string& client)> on_announced;
    // The same for an acquisition.
    std::function<void(const std::string& stage, const std::string& client)> on_acquired;
    // `process` has left the bus. True: the service does not notice.
    std::function<bool(const std::string& process)> on_left;
    std::function<std::optional<Reply>(const Incoming& request)> on_request;
    std::function<void(const Incoming& notification)> on_notification;

    // The client that it has bound; empty without one.
    const std::string& Bound() const {
        return m_bound;
    }
    void Bind(const std::string& client) {
        m_bound = client;
    }
    void Announce(const std::string& stage);

private:
    // What a message on its way to the main loop knows of the service, which may be gone by then.
    struct Link {
        OddService* service;  // null then; main thread only
    };
    struct Arrived;

    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer link);
    void Take(GDBusMessage* message);
    void TakeOwnerChange(GDBusMessage* signal);
    void TakeAnnouncement(const std::string& stage, const std::string& client);
    void AnnounceAnswer(const std::string& stage);
    void TakeRequest(GDBusMessage* call);
    void Introspect(GDBusMessage* call);

    std::string m_bound;
    const std::shared_ptr<Link> m_link;
};
