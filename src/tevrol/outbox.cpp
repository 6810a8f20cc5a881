// SPDX-License-Identifier: MIT
#include "tevrol/outbox.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tevrol {
namespace {

// A stock system bus allows 128 calls of a connection to be unanswered and refuses further ones of
// any kind. The rest is for the calls that keep the channel itself going.
constexpr std::size_t kMostUnansweredOnTheBus = 112;
// Nobody else limits them on a wire to the partner.
constexpr std::size_t kMostUnansweredOnALink = 1 << 16;

// What a message costs besides its payload, about.
constexpr std::size_t kOverhead = 256;

}  // namespace

Outbox::Outbox(Wire& wire, std::string partner, std::string path, std::size_t window)
    : m_wire(wire),
      m_partner(std::move(partner)),
      m_path(std::move(path)),
      m_window(window),
      m_most_unanswered(wire.IsBus() ? kMostUnansweredOnTheBus : kMostUnansweredOnALink),
      m_counts(wire.IsBus()) {}

void Outbox::Push(Item item) {
    item.size += kOverhead;
    const std::size_t size = item.size;
    m_items.push_back(std::move(item));
    m_waiting += size;
    Flush();
}

void Outbox::Flush() {
    try {
        SendWhatMayBeSent();
    } catch (const std::bad_alloc&) {
        m_wire.OnNoMemory();
    }
}

void Outbox::SendWhatMayBeSent() {
    while (!m_items.empty() && !m_wire.IsBroken() && MaySend(m_items.front())) {
        Item item = std::move(m_items.front());
        m_items.pop_front();
        m_waiting -= item.size;
        if (m_counts) {
            m_sent += item.size;
        }
        if (item.on_reply) {
            Call(item.message.get(), std::move(item.on_reply));
        } else {
            m_wire.Send(item.message.get());
        }
        Ask();
    }
}

bool Outbox::MaySend(const Item& item) const {
    return m_wire.IsWritten() && (!item.on_reply || m_wire.Unanswered() < m_most_unanswered) &&
           (Untaken() == 0 || Untaken() + item.size <= m_window);
}

// Sends a call. Its reply shows that the partner has taken all that was sent up to now.
void Outbox::Call(sd_bus_message* message, Wire::OnReply on_reply) {
    if (!m_counts) {
        m_wire.Call(message, std::move(on_reply));
        return;
    }
    m_wire.Call(message, [this, sent = m_sent, alive = std::weak_ptr<bool>(m_alive),
                          on_reply = std::move(on_reply)](sd_bus_message* reply) {
        const char* sender = sd_bus_message_get_sender(reply);
        if (!alive.expired() && sender != nullptr && m_partner == sender) {
            m_taken = std::max(m_taken, sent);
        }
        on_reply(reply);
    });
}

// Asks the partner's process for any answer, now and then. Where the bus does not let the question
// through, nothing is known of what the partner takes, and the outbox relies on what the bus keeps
// for it.
void Outbox::Ask() {
    if (m_asking || Untaken() < m_window / 4) {
        return;
    }
    m_asking = true;
    const Message ping =
        m_wire.NewCall(m_partner.c_str(), m_path.c_str(), "org.freedesktop.DBus.Peer", "Ping");
    Call(ping.get(), [this, alive = std::weak_ptr<bool>(m_alive)](sd_bus_message* reply) {
        if (!alive.expired()) {
            OnAnswered(reply);
        }
    });
}

void Outbox::OnAnswered(sd_bus_message* reply) {
    m_asking = false;
    const char* sender = sd_bus_message_get_sender(reply);
    if (sender == nullptr || m_partner != sender) {
        m_counts = false;
        m_taken = m_sent;
    }
    Flush();
    Ask();
}

bool Outbox::Withdraw(std::uint64_t id) {
    const auto found = std::find_if(m_items.begin(), m_items.end(),
                                    [id](const Item& item) { return item.id == id; });
    if (found == m_items.end()) {
        return false;
    }
    m_waiting -= found->size;
    m_items.erase(found);
    return true;
}

}  // namespace tevrol
