// SPDX-License-Identifier: MIT
// Finds, binds and loses the partner of a channel: the handshake of one end, in either role, as a
// state machine. Events go in, actions come out; it does no I/O, has no clock and no thread, and
// its owner calls it from one thread at a time.
//
// It pairs with every end that speaks the protocol, and heals what a plain end leaves open:
//   - SYN says "I am bound to nobody". It is announced on joining the bus, at once after a loss,
//   and
//     again and again until a partner is bound.
//   - An end that is bound repeats SYN_ACK instead (or the ACK that it still owes). A bound partner
//     ignores a SYN_ACK or answers it with an ACK; an unbound one binds.
//   - A SYN of the bound partner therefore says that the partner has begun anew.
//   - A partner that stays silent although it may be bound to this end cannot be reached by any
//     announcement: this end leaves the bus and comes back under another unique name.
// docs/protocol.md has the table of states.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tevrol {

// What is announced, by a pulse of the name of that stage.
enum class Stage { Syn, SynAck, Ack };

// What the owner has to do, in this order.
struct Action {
    enum class Kind {
        Announce,  // `stage`; the outcome comes back as Announced()
        Watch,     // `peer`: its signals and its NameOwnerChanged, then ask for its owner; the
                   // outcome comes back as Watched(), or as Vanished() where it has no owner
        Unwatch,   // `peer`; an outcome of Watch that has not come yet does not come any more
        SetTimer,  // (again): TimedOut() after the pause number `attempt`
        StopTimer,
        TellReady,  // the application, with `peer`
        TellLost,   // the application, of `peer`
        Rejoin,     // leave the bus and come back under a new unique name: Disconnected(),
                    // Connected()
    };
    Kind kind = Kind::StopTimer;
    Stage stage = Stage::Syn;
    std::string peer = {};
    // 0 to 6 while not ready, 2 to 8 once ready. Each is meant to double the pause.
    unsigned attempt = 0;
};
using Actions = std::vector<Action>;

class Handshake {
public:
    // On the bus, listening for the three names of the other role. Nothing is announced before
    // Active(true).
    Actions Connected(std::string own_name);
    // The connection is gone: because the bus is, or for a Rejoin.
    Actions Disconnected();
    // Whether this end is the active one of its role. The others stand by: they neither announce
    // nor bind.
    Actions Active(bool active);
    // The process `announcer` released the other role's name of `stage`.
    Actions Released(Stage stage, const std::string& announcer);
    // The outcome of Action::Kind::Announce: the name was owned and released, or not.
    Actions Announced(Stage stage, bool ok);
    // The outcome of Action::Kind::Watch: `peer` is watched, or the bus refused to.
    Actions Watched(const std::string& peer, bool ok);
    // `peer` is gone, or the link to it is.
    Actions Vanished(const std::string& peer);
    // A request or a notification of the bound partner arrived, so it is bound to this end. A reply
    // proves nothing: a plain end answers everybody.
    Actions Heard();
    Actions TimedOut();

    bool IsReady() const {
        return m_ready;
    }
    // The bound partner, ready or not; empty when there is none.
    const std::string& Partner() const {
        return m_partner;
    }

private:
    bool IsBound() const {
        return !m_partner.empty();
    }
    bool IsWaitingForOutcome() const;

    void Open(Actions& actions);
    void StandBy(Actions& actions);
    void Bind(const std::string& peer, Stage answer, Actions& actions);
    void Unbind(Actions& actions);
    void Lose(Actions& actions);
    void Rejoin(Actions& actions);
    void Answer(Stage stage, Actions& actions);
    void AnnounceAnswer(Actions& actions);
    void OnPartnersSyn(Actions& actions);
    void OnAck(Actions& actions);
    void Complete(Actions& actions);
    void RepeatUntilReady(Actions& actions);
    void RepeatOnceReady(Actions& actions);
    void Announce(Stage stage, Actions& actions);
    void SetTimer(Actions& actions) const;
    void TellLost(Actions& actions) const;

    std::string m_own_name;  // empty while not on the bus
    bool m_active = false;

    std::string m_partner;
    bool m_watched = false;          // from here on it may be answered
    Stage m_answer = Stage::SynAck;  // what it is to hear next: Ack as long as that is owed
    bool m_syn_ack_first = false;    // Ack is owed, and the partner may not be bound to this end
    bool m_acknowledged = false;     // it has announced ACK before it was watched
    bool m_ready = false;            // as the application was told
    bool m_begun_anew = false;       // ready, and the partner has announced SYN since
    bool m_heard = false;            // something came from the partner since TimedOut()

    // At most one announcement is under way. The next one waits for its outcome; the one after that
    // takes the place of the one that waits.
    std::optional<Stage> m_announcing;
    std::optional<Stage> m_next;

    unsigned m_attempt = 0;
};

}  // namespace tevrol
