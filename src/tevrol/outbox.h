// SPDX-License-Identifier: MIT
// What waits to be sent on one wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "tevrol/wire.h"

namespace tevrol {

// Sends in order, and no more than the other side takes: a message waits here while the wire writes
// another, while too many calls are unanswered and, on the bus, while the partner has not taken
// what was sent before. The bus itself would keep that for the partner and, when it has too much of
// it, drop notifications without a word. Used under the engine's lock.
class Outbox {
public:
    // `partner` is whom the messages are for (null on a wire to the partner), at the object `path`.
    // `window` limits what the partner has not taken yet, in bytes.
    Outbox(Wire& wire, std::string partner, std::string path, std::size_t window);
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    struct Item {
        Message message;
        std::size_t size = 0;    // of the payload
        Wire::OnReply on_reply;  // of a request
        std::uint64_t id = 0;    // of a request
    };
    // Throws std::bad_alloc, and nothing has happened then.
    void Push(Item item);
    // Sends what can be sent now.
    void Flush();
    // Forgets a request that was not sent yet; false when it was, or is not known.
    bool Withdraw(std::uint64_t id);
    // Whether nothing waits here, and the wire has written all of what was sent.
    bool IsEmpty() const {
        return m_items.empty() && m_wire.IsWritten();
    }
    // How many bytes wait here.
    std::size_t Unsent() const {
        return m_waiting;
    }
    // How many bytes wait here or are not taken yet.
    std::size_t Waiting() const {
        return m_waiting + Untaken();
    }

private:
    void SendWhatMayBeSent();
    bool MaySend(const Item& item) const;
    std::size_t Untaken() const {
        return static_cast<std::size_t>(m_sent - m_taken);
    }
    void Call(sd_bus_message* message, Wire::OnReply on_reply);
    void Ask();
    void OnAnswered(sd_bus_message* reply);

    Wire& m_wire;
    const std::string m_partner;
    const std::string m_path;
    const std::size_t m_window;
    const std::size_t m_most_unanswered;
    std::deque<Item> m_items;
    std::size_t m_waiting = 0;  // bytes in m_items
    bool m_counts;              // what was sent and taken
    std::uint64_t m_sent = 0;   // bytes, in all
    std::uint64_t m_taken = 0;  // of these, as far as is known
    bool m_asking = false;
    // Ends the answers to questions of this outbox together with it.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

}  // namespace tevrol
